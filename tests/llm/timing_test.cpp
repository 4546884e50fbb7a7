// A stop and a deadline end every kind of silence at once. Runs alone, since it measures time.
#include <algorithm>
#include <atomic>
#include <thread>

#include "tovren_mapstead/engines/llm.hpp"

#include "loopback/server.hpp"
#include "support.hpp"

namespace {

using namespace support;
namespace llm = tovren_mapstead::engines::llm;
using loopback::Exchange;
using loopback::Server;

constexpr int ROUNDS = 5;
constexpr auto HEAD_START = 60ms;

// Seconds from the moment that a call should end to its end, the median of some rounds.
template <class Error>
double delay(const std::string& url, bool by_deadline) {
  const llm::LLMClient client({.base_url = url, .model = "m", .api_key = "sk-1"},
                              {.transport = http::make_transport()});
  std::vector<double> delays;
  for (int round = 0; round < ROUNDS; ++round) {
    const auto moment = http::Clock::now() + HEAD_START;
    // Stands for a flag that another thread sets at the moment.
    const http::StopTest stop = [=] { return http::Clock::now() >= moment; };
    try {
      std::ignore = client.chat({{{"role", "user"}, {"content", std::string(100'000, 'x')}}},
                                {.should_stop = by_deadline ? http::StopTest() : stop,
                                 .deadline = by_deadline ? std::optional(moment) : std::nullopt});
      ADD_FAILURE() << "an answer";
    } catch (const Error&) {
      delays.push_back(seconds_since(moment));
    }
  }
  if (delays.size() != ROUNDS) return 1e9;
  std::ranges::nth_element(delays, delays.begin() + ROUNDS / 2);
  return delays[ROUNDS / 2];
}

TEST(Timing, StopAndDeadlineEndEverySilence) {
  const loopback::BlackHole silent_connect;
  const loopback::BlackHole silent_handshake(true);
  Server silent_head([](Exchange& exchange) { exchange.stall(); });
  Server silent_body([](Exchange& exchange) {
    exchange.start_stream();
    exchange.chunk("data: {\"choices\":[{\"delta\":{\"content\":\"a\"}}]}\n\n");
    exchange.stall();
  });
  Server chatty([](Exchange& exchange) {
    exchange.start_stream();
    while (exchange.chunk(": still there\n")) {
    }
  });
  Server slow_error([](Exchange& exchange) {
    exchange.send("HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\n");
    exchange.stall();
  });
  Server busy([](Exchange& exchange) { exchange.reply(503, ""); });
  const std::pair<const char*, std::string> places[] = {
      {"a silent connect", "http://" + silent_connect.address()},
      {"a silent TLS handshake", "https://" + silent_handshake.address()},
      {"a name server that does not answer", "http://x.slow.test"},
      {"a silent head", silent_head.url()},
      {"a silent body", silent_body.url()},
      {"a stream that never ends", chatty.url()},
      {"a refusal that never ends", slow_error.url()},
      {"a wait between attempts", busy.url()},
  };
  for (const auto& [what, url] : places) {
    SCOPED_TRACE(what);
    const double after_stop = delay<llm::LLMStopped>(url, false);
    const double after_deadline = delay<llm::LLMTimeout>(url, true);
    EXPECT_GE(after_stop, 0);
    EXPECT_LT(after_stop, 0.05);
    EXPECT_LT(after_deadline, 0.05);
  }
}

// The deadline also cuts the attempt's own limit; what ends the wait is the deadline all the same.
TEST(Timing, ADeadlineThatCutsTheLimitIsWhatEndsTheWait) {
  Server server([](Exchange& exchange) { exchange.stall(); });
  for (int round = 0; round < 20; ++round) {
    const llm::LLMClient client({.base_url = server.url(),
                                 .model = "m",
                                 .api_key = "sk-1",
                                 .timeout_s = 60,
                                 .max_retries = 0});
    EXPECT_THROW(std::ignore = client.chat({}, {.deadline = http::Clock::now() + 10ms}),
                 llm::LLMTimeout);
  }
}

}  // namespace
