// Which of several limits ends a wait. Runs alone, since it measures time.
#include "support.hpp"

namespace {

using namespace support;

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
