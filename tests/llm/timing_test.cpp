// A stop and a deadline end every kind of silence at once. Runs alone, since it measures time.
#include <algorithm>

#include "support.hpp"

namespace {

using namespace support;

// Seconds from the moment that a call should end to its end, the median of some rounds.
template <class Error>
double delay(const std::string& url, bool by_deadline) {
  constexpr int ROUNDS = 5;
  const LLMClient client({.base_url = url, .model = "m", .api_key = "sk-1"}, {.transport = http::make_transport()});
  const llm::Messages messages{{{"role", "user"}, {"content", std::string(100'000, 'x')}}};
  std::vector<double> delays;
  for (int round = 0; round < ROUNDS; ++round) {
    const auto moment = http::Clock::now() + 60ms;
    // Stands for a flag that another thread sets at the moment.
    const http::StopTest stop = [=] { return http::Clock::now() >= moment; };
    try {
      std::ignore = client.chat(messages, {.should_stop = by_deadline ? http::StopTest() : stop,
                                           .deadline = by_deadline ? std::optional(moment) : std::nullopt});
      ADD_FAILURE() << "an answer";
    } catch (const Error&) {
      delays.push_back(seconds_since(moment));
    }
  }
  std::ranges::sort(delays);
  return delays.size() == ROUNDS ? delays[ROUNDS / 2] : 1e9;
}

TEST(Timing, StopAndDeadlineEndEverySilence) {
  const loopback::BlackHole silent_connect;
  const loopback::BlackHole silent_handshake(true);
  Server silent_head([](Exchange& exchange) { exchange.stall(); });
  Server silent_body([](Exchange& exchange) { exchange.start_stream(), exchange.chunk("data: {}\n"), exchange.stall(); });
  Server refusal([](Exchange& exchange) { exchange.send("HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\n"), exchange.stall(); });
  Server busy([](Exchange& exchange) { exchange.reply(503, ""); });
  Server chatty(keep_alive);
  const std::pair<const char*, std::string> places[] = {
      {"a silent connect", "http://" + silent_connect.address()},
      {"a silent TLS handshake", "https://" + silent_handshake.address()},
      {"a name server that does not answer", "http://x.slow.test"},
      {"a silent head", silent_head.url()},
      {"a silent body", silent_body.url()},
      {"a stream that never ends", chatty.url()},
      {"a refusal that never ends", refusal.url()},
      {"a wait between attempts", busy.url()}};
  for (const auto& [what, url] : places) {
    SCOPED_TRACE(what);
    const double after_stop = delay<llm::LLMStopped>(url, false);
    EXPECT_GE(after_stop, 0);
    EXPECT_LT(after_stop, 0.05);
    EXPECT_LT(delay<llm::LLMTimeout>(url, true), 0.05);
  }
}

// The deadline also cuts the attempt's own limit; what ends the wait is the deadline all the same.
TEST(Timing, ADeadlineThatCutsTheLimitIsWhatEndsTheWait) {
  Server silent([](Exchange& exchange) { exchange.stall(); });
  Server chatty(keep_alive);
  for (const Server* const server : {&silent, &chatty}) {
    const LLMClient client({.base_url = server->url(), .model = "m", .api_key = "sk-1", .timeout_s = 0.3, .max_retries = 0});
    for (int round = 0; round < 20; ++round) {
      EXPECT_THROW(std::ignore = client.chat({}, {.deadline = http::Clock::now() + 10ms}), llm::LLMTimeout);
    }
    const auto start = http::Clock::now();
    EXPECT_TRUE(contains(text_of<llm::LLMError>([&] { std::ignore = client.chat({}); }), "at the only try"));
    EXPECT_NEAR(seconds_since(start), 0.3, 0.1);
  }
}

}  // namespace
