// The engine's own transport over real sockets: what it reuses and what it refuses.
#include <filesystem>
#include <fstream>

#include <unistd.h>

#include "engines/http/curl/route.hpp"
#include "faults/faults.hpp"
#include "support.hpp"

namespace {

using namespace support;

struct Call {
  std::string url;
  std::shared_ptr<http::Transport> transport = http::make_transport();
  double timeout_s = 10;
  http::JsonObject body{};
};

template <class Read>
auto post(const Call& call, Read read) {
  const http::RetryPolicy policy{};
  return http::send(call.url,
                    {.policy = policy,
                     .timeout_s = call.timeout_s,
                     .body = call.body,
                     .headers = {},
                     .secrets = {},
                     .transport = call.transport.get()},
                    read);
}

std::string post(const Call& call) {
  return post(call, [](http::Response& reply) { return reply.read_rest(64 << 20U); });
}

TEST(Transport, RefusesUrlsThatItCannotUse) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://", "malformed"},
      {"http://user:SECRET/1@127.0.0.1:1/?SECRET", "malformed"},
      {"file:///etc/passwd", "only http and https"}};
  for (const auto& [url, told] : cases) {
    const auto text = text_of<http::HttpFailure>([&, &url = url] { post({.url = url}); });
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
  const Call trusting{.url = server.url()};
  const Call too_late{.url = server.url()};
  unsetenv("SSL_CERT_FILE");  // the file was named when the transports were made
  EXPECT_EQ(post(trusting), "hi");
  std::filesystem::remove(file);
  const auto text = text_of<http::HttpFailure>([&] { post(too_late); });
  EXPECT_TRUE(contains(text, "cannot read the trusted certificates in " + file.string())) << text;
}

TEST(Transport, KeepsAConnectionForBodiesHoweverLarge) {
  std::string text;
  for (int i = 0; text.size() < 5'000'000; ++i) text += std::to_string(i);
  Server server([](Exchange& exchange) { exchange.reply(200, exchange.request().body); },
                {.tls = true});
  const Call call{.url = server.url(),
                  .transport = faults::trusting(server),
                  .body = http::JsonObject().add("text", text)};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(post(call), http::JsonObject(call.body).text());
  EXPECT_EQ(server.connections(), 1);
}

TEST(Transport, UsesOneConnectionForOneStreamAfterTheOther) {
  const std::tuple<const char*, std::function<void(Exchange&)>, int> cases[] = {
      // what, what comes after the marker, the most connections for twenty streams
      {"ended late", [](Exchange& e) { e.pause(20ms), e.end_stream(); }, 6},
      {"some garbage", [](Exchange& e) { e.chunk("data: x\n\n"), e.end_stream(); }, 3},
      {"too much garbage", [](Exchange& e) { e.chunk(std::string(1 << 20, 'x')), e.end_stream(); },
       20},
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

// libcurl would repeat it in silence on a kept connection that breaks.
TEST(Transport, SendsARequestOnce) {
  Server server([](Exchange& exchange) {
    exchange.request().body == "{}" ? exchange.reply(200, "") : exchange.close();
  });
  const Call kept{.url = server.url()};
  Call closing = kept;
  closing.body.add("close", true);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(post(kept), "");
    EXPECT_THROW(post(closing), http::Retryable);
  }
  EXPECT_EQ(server.requests(), 10);
  EXPECT_EQ(server.connections(), 5) << "a connection that broke was not one that was kept";
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
  const auto exchange =
      http::default_transport().open({.method = http::Method::get, .url = server.url()}, watch);
  std::string body;
  std::size_t before = 0;
  do {
    EXPECT_LE(body.size() - std::exchange(before, body.size()), 128U << 10U);
    std::this_thread::sleep_for(1ms);  // the sender is ahead
  } while (exchange->read(body, watch));
  EXPECT_EQ(body.size(), 16U << 20U);
}

}  // namespace
