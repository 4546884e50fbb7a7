// Proxies that refuse, that never come to an end, and that repeat what they were told.
#include "engines/http/curl/proxies.hpp"
#include "faults/faults.hpp"
#include "support.hpp"

namespace {

using namespace support;

void clear_proxies() {
  for (const char* const name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY",
                                 "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
    unsetenv(name);
  }
}

// A request through the proxy at this address, which the environment names, and the error's text.
template <class Error>
std::string ask(const std::string& proxy, const char* scheme,
                const http::RetryPolicy& policy = POLICY) {
  clear_proxies();
  setenv((scheme + std::string("_proxy")).c_str(), ("http://me:SECR%2FT+x@" + proxy).c_str(), 1);
  const auto transport = http::make_transport();
  clear_proxies();
  auto options = over(*transport, policy);
  options.headers = {{"Authorization", "Bearer KEY"}};
  auto text = text_of<Error>([&] {
    http::send(scheme + std::string("://no.such.host.invalid/x"), options,
               [](http::Response& reply) { return reply.read_rest(1000); });
  });
  EXPECT_FALSE(contains(text, "SECR") || contains(text, "bWU6U0VDUi9UK3g")) << text;
  return text;
}

std::string address_of(const Server& server) {
  return "127.0.0.1:" + std::to_string(server.port());
}

TEST(Proxy, RefusalsAreToldAndSortedLikeStatuses) {
  const std::string failed =
      "request failed: the proxy refuses to connect to https://no.such.host.invalid: HTTP ";
  int status = 0;
  Server proxy([&](Exchange& exchange) {
    EXPECT_EQ(exchange.request().method, "CONNECT");
    // The proxy would read it in clear.
    EXPECT_FALSE(exchange.request().headers.contains("authorization"));
    exchange.reply(status, "no");
  });
  const std::pair<int, const char*> cases[] = {
      {403, "403, it does not allow this connection"},
      {407, "407, it wants a user name and password; put them into the proxy variable"},
      {502, "502, it cannot reach the server; try again later"}};
  for (const auto& [code, told] : cases) {
    status = code;
    EXPECT_EQ(ask<http::HttpFailure>(address_of(proxy), "https"), failed + told);
  }
  status = 503;
  EXPECT_TRUE(contains(ask<http::Retryable>(address_of(proxy), "https"), "HTTP 503"));
  EXPECT_TRUE(contains(ask<http::Retryable>("no.such.host.invalid", "https"), "cannot resolve"));
}

TEST(Proxy, StopAndDeadlineEndWhatItNeverEnds) {
  for (const bool silent : {true, false}) {
    SCOPED_TRACE(silent);
    Server proxy([&](Exchange& exchange) {
      if (silent) return exchange.stall();
      const auto end = http::Clock::now() + 1s;  // of a call that neither ends
      exchange.send("HTTP/1.1 407 No\r\n" + faults::ENDLESS);
      while (http::Clock::now() < end && exchange.send(std::string(1 << 16, 'x'))) {
      }
      exchange.close();
    });
    const auto bound = http::Clock::now() + 300ms;
    ask<http::DeadlineExceeded>(address_of(proxy), "https", {.deadline = bound});
    EXPECT_LT(seconds_since(bound), 0.2);
    const int connections = proxy.connections();
    const auto own = [&] {
      return proxy.connections() > connections ? throw std::domain_error("own") : false;
    };
    const auto start = http::Clock::now();
    ask<std::domain_error>(address_of(proxy), "https", {.should_stop = own});
    EXPECT_LT(seconds_since(start), 0.2);
  }
}

TEST(Proxy, CredentialIsASecretInEveryText) {
  Server proxy([](Exchange& exchange) {
    exchange.reply(502, "told " + exchange.request().headers.at("proxy-authorization") +
                            " me:SECR/T+x SECR\\/T+x SECR%2FT%2Bx " + exchange.request().target);
  });
  const auto text = ask<http::HttpFailure>(address_of(proxy), "http");
  EXPECT_TRUE(contains(text, "told Basic") && contains(text, "http://no.such.host.invalid/x"))
      << text;
}

TEST(Proxies, AreThoseThatTheEnvironmentNames) {
  const std::tuple<const char*, bool, bool> cases[] = {
      // the variable, whether it is for http, and for https
      {"http_proxy", true, false},  {"HTTP_PROXY", false, false}, {"https_proxy", false, true},
      {"HTTPS_PROXY", false, true}, {"all_proxy", true, true},    {"ALL_PROXY", true, true}};
  for (const auto& [variable, for_http, for_https] : cases) {
    clear_proxies();
    setenv(variable, "http://proxy.example", 1);
    EXPECT_EQ(http::Proxies().find("http", "h").has_value(), for_http) << variable;
    EXPECT_EQ(http::Proxies().find("https", "h").has_value(), for_https) << variable;
  }
  setenv("https_proxy", "", 1);  // as if it were not set
  setenv("HTTPS_PROXY", "https://first.example", 1);
  setenv("ALL_PROXY", "http://second.example", 1);
  const auto found = http::Proxies().find("https", "h");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->host, "first.example");
  EXPECT_EQ(found->port, 443);
  EXPECT_TRUE(found->over_tls);
  clear_proxies();
}

TEST(Proxies, LeaveOutWhatNoProxyNames) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      // no_proxy, the host, whether it is left out
      {"*", "h", true},
      {"example.com", "example.com", true},
      {"example.com", "a.example.com", true},
      {"example.com", "badexample.com", false},
      {"EXAMPLE.com.", "example.com", true},
      {"x, y\texample.com ,", "example.com", true},
      {"10.0.0.0/15", "10.1.2.3", true},
      {"10.0.0.0/16", "10.1.2.3", false},
      {"10.1.2.2/31", "10.1.2.3", true},
      {"10.0.0.0/33", "10.0.0.0", false},
      {"0.0.0.0/0", "10.1.2.3", true},
      {"0.0.0.0/0", "::1", false},
      {"fd00::/8", "fd12::1", true},
      {"fe80::1", "fe80::1%1", true},
      {"10.0.0.0/8", "10.example.com", false}};
  setenv("http_proxy", "http://proxy.example", 1);
  for (const auto& [no_proxy, host, left_out] : cases) {
    setenv("no_proxy", no_proxy, 1);
    EXPECT_NE(http::Proxies().find("http", host).has_value(), left_out) << no_proxy << " " << host;
  }
  clear_proxies();
}

TEST(Proxies, AreRefusedWithoutTheirPassword) {
  const std::pair<const char*, const char*> cases[] = {
      {"ftp://me:SECRET@h", "unsupported scheme"},
      {"http://me:SECRET/2@h:1", "malformed URL of the proxy for http ("}};
  for (const auto& [url, told] : cases) {
    setenv("http_proxy", url, 1);
    try {
      std::ignore = http::Proxies().find("http", "h");
      ADD_FAILURE() << url;
    } catch (const http::TransportError& error) {
      const std::string text = error.what();
      EXPECT_TRUE(contains(text, told) && !contains(text, "SECRET")) << text;
      EXPECT_FALSE(error.transient());
    }
  }
  clear_proxies();
}

}  // namespace
