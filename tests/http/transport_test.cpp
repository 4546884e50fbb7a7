// The engine's own transport over real sockets: what it reuses, what it refuses, what it survives.
#include <csignal>
#include <filesystem>
#include <fstream>

#include "support.hpp"

namespace {

using namespace support;

struct Call {
  std::string url;
  std::shared_ptr<http::Transport> transport = http::make_transport();
  double timeout_s = 10;
  Json body = Json::object();
  http::StopTest should_stop{};
};

template <class Read>
auto post(const Call& call, Read read) {
  const http::RetryPolicy policy{.should_stop = call.should_stop};
  return http::send(call.url,
                    {.policy = policy, .timeout_s = call.timeout_s, .body = call.body, .headers = {}, .secrets = {}, .transport = call.transport.get()},
                    read);
}

std::string post(const Call& call) {
  return post(call, [](http::Response& reply) { return reply.read_rest(64 << 20U); });
}

// A transport that trusts a server's certificate.
std::shared_ptr<http::Transport> trusting(const Server& server) {
  const auto file = std::filesystem::temp_directory_path() / ("tovren-" + std::to_string(server.port()) + ".pem");
  std::ofstream(file) << server.certificate();
  auto transport = http::make_transport({.ca_file = file.string()});
  return {transport.get(), [transport, file](auto*) { std::filesystem::remove(file); }};
}

TEST(Transport, SortsWhatGoesWrongOnTheWay) {
  Server server([](Exchange& exchange) {
    const std::string& path = exchange.request().target;
    if (path == "/moved") return exchange.reply(307, "", "text/plain", "Location: /elsewhere\r\n");
    if (path == "/reset") return exchange.reset();
    if (path == "/cut") exchange.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\ncut");
    if (path == "/chunk") exchange.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\ncu");
    if (path == "/half") exchange.send("HTTP/1.1 200 OK\r\nContent-");
    if (path == "/ssh") exchange.send("SSH-2.0-OpenSSH_9\r\n");
    if (path == "/head") exchange.send("HTTP/1.1 200 OK\r\n");
    for (int i = 0; path == "/head" && i < 400; ++i) exchange.send("A: " + std::string(1000, 'x') + "\r\n");
    exchange.close();
  });
  Server tls([](Exchange& exchange) { exchange.reply(200, "unseen"); }, {.tls = true});
  Server slow([](Exchange& exchange) { exchange.stall(); });
  Server dropping([](Exchange&) {}, {.hang_up = true});

  const std::tuple<std::string, bool, const char*> cases[] = {
      // the URL, whether another try may help, what the error says
      {server.url() + "/reset", true, "reset"},
      {server.url() + "/nothing", true, "empty reply"},
      {server.url() + "/cut", true, "breaks off"},
      {server.url() + "/chunk", true, "127.0.0.1"},
      {server.url() + "/half", true, "head of the reply breaks off"},
      {loopback::refused_url(), true, "cannot connect"},
      {"http://no.such.host.invalid/", true, "cannot resolve"},
      {slow.url(), true, "nothing moved for 0.2 s"},
      {server.url() + "/ssh", false, "no HTTP server"},
      {server.url() + "/head", false, "too large"},
      {server.url() + "/moved", false, "not followed"},
      {tls.url(), false, "cannot trust"},
      {"https" + server.url().substr(4), false, "cannot agree on TLS"},
      {"https" + dropping.url().substr(4), true, "127.0.0.1"},
      {"http://", false, "malformed"},
      {"http://user:SECRET/1@127.0.0.1:1/?SECRET", false, "malformed"},
      {"http://[::1/", false, "malformed"},
      {"ftp://127.0.0.1/", false, "only http and https"},
      {"file:///etc/passwd", false, "only http and https"}};
  for (const auto& [url, transient, told] : cases) {
    SCOPED_TRACE(url);
    const auto act = [&, &url = url] { post({.url = url, .timeout_s = url == slow.url() ? 0.2 : 5}); };
    const auto text = transient ? text_of<http::Retryable>(act) : text_of<http::HttpFailure>(act);
    EXPECT_TRUE(contains(text, told) && !contains(text, "SECRET")) << text;
  }
  EXPECT_EQ(tls.requests(), 0);
}

TEST(Transport, TrustsTheAuthoritiesItIsGiven) {
  Server server([](Exchange& exchange) { exchange.reply(200, "over TLS"); }, {.tls = true});
  const auto transport = trusting(server);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(post({.url = server.url(), .transport = transport}), "over TLS");
  EXPECT_EQ(server.connections(), 1);
  // The name counts, not only the signature.
  const std::string by_address = "https://127.0.0.1:" + std::to_string(server.port());
  EXPECT_THROW(post({.url = by_address, .transport = transport}), http::HttpFailure);
}

// With SIGPIPE at its default, a write to a closed connection would end this program.
TEST(Transport, SurvivesAPeerThatClosesWhileItIsWrittenTo) {
  ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
  const Json body{{"content", std::string(8 << 20, 'x')}};
  for (const bool tls : {false, true}) {
    Server server([](Exchange&) {}, {.tls = tls, .hang_up = true});
    const Call call{.url = server.url(), .transport = trusting(server), .body = body};
    for (int i = 0; i < 20; ++i) EXPECT_THROW(post(call), http::Retryable);
  }
}

TEST(Transport, SendsTheWholeBodyAndReadsTheWholeReply) {
  Server server([](Exchange& exchange) {
    exchange.start_stream("text/plain");
    const std::string& body = exchange.request().body;
    for (std::size_t at = 0; at < body.size(); at += 100'000) exchange.chunk(body.substr(at, 100'000));
    exchange.end_stream();
  });
  std::string text;
  for (int i = 0; text.size() < 5'000'000; ++i) text += std::to_string(i);
  const Json body{{"content", text}};
  EXPECT_EQ(post({.url = server.url(), .body = body}), body.dump());
}

TEST(Transport, UsesOneConnectionForOneStreamAfterTheOther) {
  const std::tuple<const char*, std::function<void(Exchange&)>, int> cases[] = {
      // what, what comes after the marker, connections for twenty streams, on a busy machine at most
      {"ended at once", [](Exchange& e) { e.end_stream(); }, 3},
      {"ended a little later", [](Exchange& e) { e.pause(1ms), e.end_stream(); }, 3},
      {"ended late", [](Exchange& e) { e.pause(20ms), e.end_stream(); }, 6},
      {"some garbage", [](Exchange& e) { e.chunk("data: x\n\n"), e.end_stream(); }, 3},
      {"too much garbage", [](Exchange& e) { e.chunk(std::string(1 << 20, 'x')), e.end_stream(); }, 20},
      {"never ended", [](Exchange& e) { e.stall(); }, 20}};
  for (const auto& [what, after_marker, connections] : cases) {
    SCOPED_TRACE(what);
    Server server([&after = after_marker](Exchange& exchange) {
      exchange.start_stream();
      if (exchange.chunk("data: [DONE]\n\n")) after(exchange);
    });
    const Call call{.url = server.url()};
    const auto start = http::Clock::now();
    for (int i = 0; i < 20; ++i) {
      post(call, [](http::Response& reply) { EXPECT_EQ(reply.next_line(), "data: [DONE]"); });
      std::this_thread::sleep_for(5ms);
    }
    EXPECT_LE(server.connections(), connections);
    EXPECT_LT(seconds_since(start), 2);
  }
}

TEST(Transport, TakesASlowReaderForNoSilence) {
  Server server([](Exchange& exchange) {
    exchange.start_stream();
    for (int i = 0; i < 10; ++i) exchange.chunk("x\n"), exchange.pause(40ms);
    exchange.end_stream();
  });
  int lines = 0;
  post({.url = server.url(), .timeout_s = 0.5}, [&](http::Response& reply) {
    for (; reply.next_line(); ++lines) std::this_thread::sleep_for(lines == 1 ? 700ms : 0ms);
  });
  EXPECT_EQ(lines, 10);
}

TEST(Transport, GoesThroughAProxyWhosePasswordItKeepsToItself) {
  Server proxy([](Exchange& exchange) { exchange.reply(200, exchange.request().target); });
  setenv("http_proxy", proxy.url().c_str(), 1);
  EXPECT_EQ(post({.url = "http://no.such.host.invalid/x"}), "http://no.such.host.invalid/x");
  setenv("http_proxy", "http://me:SECRET/2@127.0.0.1:9", 1);
  EXPECT_FALSE(contains(text_of<http::Error>([] { post({.url = "http://127.0.0.1:1/"}); }), "SECRET"));
  unsetenv("http_proxy");
}

// libcurl would repeat it in silence on a kept connection that breaks.
TEST(Transport, SendsARequestOnce) {
  Server server([](Exchange& exchange) { exchange.request().body == "0" ? exchange.reply(200, "") : exchange.close(); });
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(post({.url = server.url(), .body = 0}), "");
    EXPECT_THROW(post({.url = server.url(), .body = 1}), http::Retryable);
  }
  EXPECT_EQ(server.requests(), 10);
}

TEST(Transport, HoldsAFastSenderBack) {
  Server server([](Exchange& exchange) {
    exchange.start_stream("text/plain");
    for (int i = 0; i < 16 && exchange.chunk(std::string(1 << 20, 'x')); ++i) {
    }
    exchange.end_stream();
  });
  const http::StopTest none;
  http::Watch watch(5, none, {});
  const auto exchange = http::default_transport().open({.method = http::Method::get, .url = server.url(), .headers = {}, .body = {}}, watch);
  std::string body;
  std::size_t before = 0;
  do {
    EXPECT_LE(body.size() - std::exchange(before, body.size()), 128U << 10U);
    std::this_thread::sleep_for(1ms);  // the sender is ahead
  } while (exchange->read(body, watch));
  EXPECT_EQ(body.size(), 16U << 20U);
}

TEST(Transport, LetsTheCallersErrorsPass) {
  Server server([](Exchange& exchange) { exchange.stall(); });
  int asked = 0;
  const auto throwing = [&]() -> bool { return ++asked > 3 ? throw 7 : false; };
  EXPECT_THROW(post({.url = server.url(), .should_stop = throwing}), int);
}

}  // namespace
