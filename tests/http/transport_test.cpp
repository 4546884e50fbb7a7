// The engine's own transport over real sockets: what it reuses, what it refuses, what it survives.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "loopback/server.hpp"
#include "support.hpp"

namespace {

using namespace support;
using loopback::Exchange;
using loopback::Server;

struct Bounds {
  double timeout_s = 10;
  http::StopTest should_stop = [] { return false; };
  std::optional<http::Deadline> deadline{};
  std::shared_ptr<http::Transport> transport = http::make_transport();
};

std::string post(const std::string& url, const Bounds& bounds = {},
                 const Json& body = Json::object()) {
  const http::RetryPolicy policy{.should_stop = bounds.should_stop, .deadline = bounds.deadline};
  return http::send(url,
                    {.policy = policy,
                     .timeout_s = bounds.timeout_s,
                     .body = body,
                     .headers = {{"Authorization", "Bearer k"}},
                     .secrets = {},
                     .transport = bounds.transport.get()},
                    [](http::Response& reply) { return reply.read_rest(64 << 20U); });
}

TEST(Transport, SortsWhatGoesWrongOnTheWay) {
  Server server([](Exchange& exchange) {
    const std::string& path = exchange.request().target;
    if (path == "/reset") return exchange.reset();
    if (path == "/nothing") return exchange.close();
    if (path == "/cut") {
      exchange.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\ncut");
      return exchange.close();
    }
    if (path == "/cutchunk") {
      exchange.start_stream();
      exchange.send("5\r\ncu");
      return exchange.close();
    }
    if (path == "/ssh") {
      exchange.send("SSH-2.0-OpenSSH_9\r\n");
      return exchange.close();
    }
    if (path == "/head") {
      for (int i = 0; i < 400; ++i) {
        exchange.send((i == 0 ? "HTTP/1.1 200 OK\r\nA: " : "A: ") + std::string(1000, 'x') +
                      "\r\n");
      }
      return exchange.close();
    }
    if (path == "/moved") return exchange.reply(307, "", "text/plain", "Location: /elsewhere\r\n");
    exchange.reply(200, path);
  });
  Server other_tls([](Exchange& exchange) { exchange.reply(200, "unseen"); }, {.tls = true});
  Server slow([](Exchange& exchange) { exchange.stall(); });

  struct Case {
    std::string url;
    bool transient;
    const char* told;
  };

  const Case cases[] = {
      {server.url() + "/reset", true, "reset"},
      {server.url() + "/nothing", true, "empty reply"},
      {server.url() + "/cut", true, "breaks off"},
      {server.url() + "/cutchunk", true, ""},
      {loopback::refused_url(), true, "cannot connect"},
      {"http://no.such.host.invalid/", true, "cannot resolve"},
      {slow.url(), true, "nothing moved for 0.2 s"},
      {server.url() + "/ssh", false, "only http"},
      {server.url() + "/head", false, "too large"},
      {server.url() + "/moved", false, "not followed"},
      {other_tls.url(), false, "cannot trust"},
      {"https" + server.url().substr(4), false, "cannot agree on TLS"},
      {"http://", false, "malformed"},
      {"http://[::1/", false, "malformed"},
      {"ftp://127.0.0.1/", false, "only http and https"},
      {"file:///etc/passwd", false, "only http and https"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url);
    const auto act = [&] { post(c.url, {.timeout_s = 0.2}); };
    const std::string text =
        c.transient ? text_of<http::Retryable>(act) : text_of<http::HttpFailure>(act);
    EXPECT_TRUE(contains(text, c.told)) << text;
  }
  EXPECT_EQ(other_tls.requests(), 0);
}

TEST(Transport, TrustsTheAuthoritiesItIsGiven) {
  Server server([](Exchange& exchange) { exchange.reply(200, "over TLS"); }, {.tls = true});
  const auto file = std::filesystem::temp_directory_path() /
                    ("tovren-test-" + std::to_string(server.port()) + ".pem");
  std::ofstream(file) << server.certificate();
  const Bounds bounds{.transport = http::make_transport({.ca_file = file.string()})};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(post(server.url(), bounds), "over TLS");
  EXPECT_EQ(server.connections(), 1);
  // The name counts, not only the signature.
  const std::string by_address = "https://127.0.0.1:" + std::to_string(server.port());
  EXPECT_THROW(post(by_address, bounds), http::HttpFailure);
  std::filesystem::remove(file);
}

// With SIGPIPE at its default, a write to a closed connection would end this program.
TEST(Transport, SurvivesAPeerThatClosesWhileItIsWrittenTo) {
  ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
  for (const bool tls : {false, true}) {
    Server server([](Exchange&) {}, {.tls = tls, .hang_up = true});
    const auto file = std::filesystem::temp_directory_path() /
                      ("tovren-test-" + std::to_string(server.port()) + ".pem");
    std::ofstream(file) << server.certificate();
    const Bounds bounds{.transport = http::make_transport({.ca_file = file.string()})};
    const Json body{{"content", std::string(8 << 20, 'x')}};
    for (int i = 0; i < 20; ++i) EXPECT_THROW(post(server.url(), bounds, body), http::Retryable);
    std::filesystem::remove(file);
  }
}

TEST(Transport, SendsTheWholeBodyAndReadsTheWholeReply) {
  Server server([](Exchange& exchange) {
    exchange.start_stream("text/plain");
    const std::string& body = exchange.request().body;
    for (std::size_t at = 0; at < body.size(); at += 100'000)
      exchange.chunk(body.substr(at, 100'000));
    exchange.end_stream();
  });
  Json body{{"content", std::string()}};
  auto& text = body["content"].get_ref<std::string&>();
  for (int i = 0; text.size() < 5'000'000; ++i) text += std::to_string(i);
  EXPECT_EQ(post(server.url(), {}, body), body.dump());
}

TEST(Transport, UsesOneConnectionForOneStreamAfterTheOther) {
  const char* const event = "data: [DONE]\n\n";

  struct Case {
    const char* what;
    std::function<void(Exchange&)> after_marker;
    int least, most;
  };

  const Case cases[] = {
      {"ended at once", [](Exchange& e) { e.end_stream(); }, 1, 1},
      {"ended a little later", [](Exchange& e) { e.pause(1ms), e.end_stream(); }, 1, 1},
      {"some garbage", [](Exchange& e) { e.chunk("data: x\n\n"), e.end_stream(); }, 1, 1},
      {"too much garbage", [](Exchange& e) { e.chunk(std::string(1 << 20, 'x')), e.end_stream(); },
       20, 20},
      {"never ended", [](Exchange& e) { e.stall(); }, 20, 20},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Server server([&](Exchange& exchange) {
      exchange.start_stream();
      if (exchange.chunk(event)) c.after_marker(exchange);
    });
    const Bounds bounds;
    const auto start = http::Clock::now();
    const http::RetryPolicy policy;
    for (int i = 0; i < 20; ++i) {
      const std::string line = http::send(
          server.url(),
          {.policy = policy,
           .body = {},
           .headers = {},
           .secrets = {},
           .transport = bounds.transport.get()},
          [](http::Response& reply) { return std::string(reply.next_line().value_or("")); });
      EXPECT_EQ(line, "data: [DONE]");
      std::this_thread::sleep_for(5ms);
    }
    EXPECT_GE(server.connections(), c.least);
    EXPECT_LE(server.connections(), c.most);
    EXPECT_LT(seconds_since(start), 1);
  }
}

TEST(Transport, HoldsAFastSenderBack) {
  std::atomic<std::size_t> sent = 0;
  Server server([&](Exchange& exchange) {
    exchange.start_stream("text/plain");
    const std::string piece = std::string((1 << 20) - 1, 'x') + "\n";
    for (int i = 0; i < 64 && exchange.chunk(piece); ++i) sent += piece.size();
    exchange.end_stream();
  });
  const http::RetryPolicy policy;
  http::send(server.url(), {.policy = policy, .body = {}, .headers = {}, .secrets = {}},
             [&](http::Response& reply) {
               reply.next_line();
               std::this_thread::sleep_for(100ms);
               EXPECT_LT(sent, 32U << 20U);  // the kernel's buffers and a little of ours
               std::size_t lines = 1;
               while (reply.next_line()) ++lines;
               EXPECT_EQ(lines, 64U);
             });
}

TEST(Transport, LetsTheCallersErrorsPass) {
  Server server([](Exchange& exchange) { exchange.stall(); });
  int asked = 0;
  const auto throwing = [&]() -> bool { return ++asked > 3 ? throw 7 : false; };
  EXPECT_THROW(post(server.url(), {.should_stop = throwing}), int);
}

}  // namespace
