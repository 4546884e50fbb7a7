// The engine's own transport over real sockets: what it reuses and what it refuses.
#include <filesystem>
#include <fstream>

#include <unistd.h>

#include "engines/http/curl/route.hpp"
#include "support.hpp"

namespace {

using namespace support;

std::string post(const std::string& url, http::Transport& transport, const char* text = "") {
  auto options = over(transport);
  options.body.add("text", text);
  return http::send(url, std::move(options),
                    [](http::Response& reply) { return reply.read_rest(1000); });
}

TEST(Transport, RefusesUrlsThatItCannotUse) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://", "malformed"},
      {"http://user:SECRET/1@127.0.0.1:1/?SECRET", "malformed"},
      {"file:///etc/passwd", "only http and https"}};
  for (const auto& [url, told] : cases) {
    const auto text =
        text_of<http::HttpFailure>([&, &url = url] { post(url, http::default_transport()); });
    EXPECT_TRUE(contains(text, told) && !contains(text, "SECRET")) << text;
  }
}

TEST(Origin, ShowsNeitherUserNorPathNorQuery) {
  const std::pair<const char*, const char*> cases[] = {{"HTTP://H.example/x", "http://H.example"},
                                                       {"http://h:8080?KEY", "http://h:8080"},
                                                       {"http://h#KEY", "http://h"},
                                                       {"http://h\\KEY", "http://h"},
                                                       {"http://me:K@EY@h", "http://h"},
                                                       {"http://me:KEY/1@h/", "http://me"},
                                                       {"http://[::1]:80/", "http://[::1]:80"},
                                                       {"http://[::1]:KEY/", "http://[::1]"},
                                                       {"h/x", "h"}};
  for (const auto& [url, origin] : cases) EXPECT_EQ(http::origin_of(url), origin) << url;
}

TEST(Transport, TrustsTheAuthoritiesInAFile) {
  Server server([](Exchange& exchange) { exchange.reply(200, "hi"); }, {.tls = true});
  const auto file = std::filesystem::temp_directory_path() / ("ca." + std::to_string(getpid()));
  std::ofstream(file) << server.certificate();
  setenv("SSL_CERT_FILE", file.c_str(), 1);
  const auto trusting = http::make_transport();
  const auto too_late = http::make_transport();
  unsetenv("SSL_CERT_FILE");  // the file was named when the transports were made
  EXPECT_EQ(post(server.url(), *trusting), "hi");
  std::filesystem::remove(file);
  const auto text = text_of<http::HttpFailure>([&] { post(server.url(), *too_late); });
  EXPECT_TRUE(contains(text, "cannot read the trusted certificates in " + file.string())) << text;
}

TEST(Transport, UsesOneConnectionForOneStreamAfterTheOther) {
  const std::tuple<const char*, std::size_t, bool> cases[] = {
      // what follows the end marker, its bytes, whether it ends
      {"an end that comes late", 0, true},
      {"more than the client takes at once", 60'000, true},
      {"silence", 0, false}};
  for (const auto& [what, bytes, ends] : cases) {
    SCOPED_TRACE(what);
    Server server([&, rest = std::string(bytes, '\n'), last = ends](Exchange& exchange) {
      exchange.start_stream();
      exchange.chunk("data: [DONE]\n\n" + rest);
      if (!last) return exchange.stall();
      exchange.pause(20ms);
      exchange.end_stream();
    });
    const auto transport = http::make_transport();
    const auto start = http::Clock::now();
    for (int i = 0; i < 20; ++i) {
      http::send(server.url(), over(*transport),
                 [](http::Response& reply) { EXPECT_EQ(reply.next_line(), "data: [DONE]"); });
      std::this_thread::sleep_for(5ms);
    }
    EXPECT_LE(server.connections(), ends ? 6 : 20);
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
  auto options = over(http::default_transport());
  options.timeout_s = 0.5;
  http::send(server.url(), std::move(options), [&](http::Response& reply) {
    for (; reply.next_line(); ++lines) std::this_thread::sleep_for(lines == 1 ? 700ms : 0ms);
  });
  EXPECT_EQ(lines, 10);
}

// libcurl would repeat it in silence on a kept connection that breaks.
TEST(Transport, SendsARequestOnce) {
  Server server([](Exchange& exchange) {
    contains(exchange.request().body, "close") ? exchange.close() : exchange.reply(200, "");
  });
  const auto transport = http::make_transport();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(post(server.url(), *transport), "");
    EXPECT_THROW(post(server.url(), *transport, "close"), http::Retryable);
  }
  EXPECT_EQ(server.requests(), 10);
  EXPECT_EQ(server.connections(), 5) << "a connection that broke was not one that was kept";
}

TEST(Transport, HoldsAFastSenderBack) {
  Server server([](Exchange& exchange) {
    exchange.start_stream();
    for (int i = 0; i < 16; ++i) exchange.chunk(std::string(1 << 20, 'x'));
    exchange.end_stream();
  });
  const http::StopTest none;
  http::Watch watch(5, none, {});
  const auto exchange = http::default_transport().open({.url = server.url()}, watch);
  std::string body;
  std::size_t before = 0;
  do {
    EXPECT_LE(body.size() - std::exchange(before, body.size()), 128U << 10U);
    std::this_thread::sleep_for(1ms);  // the sender is ahead
  } while (exchange->read(body, watch));
  EXPECT_EQ(body.size(), 16U << 20U);
}

}  // namespace
