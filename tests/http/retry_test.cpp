#include <climits>
#include <limits>

#include "support.hpp"

namespace {

using namespace support;

static_assert(http::StatusSet{408, 599}.contains(599));
static_assert(!http::StatusSet{599}.contains(600) && !http::StatusSet{100}.contains(-1));

constexpr double FOREVER = std::numeric_limits<double>::infinity();

TEST(Retry, WaitsLongerEachTimeAndGivesUp) {
  const std::tuple<int, double, int, std::vector<double>, bool> cases[] = {
      // attempts, backoff_s, failures before the answer, waits, whether it is answered
      {3, 1.0, 0, {}, true},
      {4, 1.0, 3, {1, 2, 4}, true},
      {3, 0.5, 9, {0.5, 1}, false},
      {1, 1.0, 9, {}, false},
      {0, 1.0, 9, {}, false},
      {INT_MIN, 1.0, 9, {}, false},
      {INT_MAX, 1e308, 3, {1e308, FOREVER, FOREVER}, true}};
  for (const auto& [attempts, backoff_s, failures, expected_waits, answered] : cases) {
    SCOPED_TRACE(attempts);
    std::vector<double> waits;
    const http::RetryPolicy policy{.attempts = attempts, .backoff_s = backoff_s, .timeout_s = 7, .wait = [&](double s, auto&, auto) { waits.push_back(s); }};
    auto act = [&policy, left = failures]() mutable {
      const auto attempt = [&](double timeout_s) {
        EXPECT_EQ(timeout_s, 7);
        return left-- > 0 ? throw http::Retryable("busy, says KEY-1") : 42;
      };
      return http::retry(policy, attempt, {.label = "LLM call", .secrets = {"KEY-1"}});
    };
    if (answered) {
      EXPECT_EQ(act(), 42);
    } else {
      const auto text = text_of<http::Exhausted>(act);
      EXPECT_TRUE(text.starts_with("LLM call") && contains(text, "busy, says ***")) << text;
    }
    EXPECT_EQ(waits, expected_waits);
  }
}

TEST(Retry, CutsTheTimeLimitToTheDeadline) {
  const auto granted = [](double timeout_s, std::chrono::milliseconds left) {
    const http::RetryPolicy policy{.timeout_s = timeout_s, .deadline = http::Clock::now() + left};
    return http::retry(policy, [](double limit_s) { return limit_s; });
  };
  EXPECT_EQ(granted(2, 10s), 2);
  for (const double timeout_s : {60.0, 0.0, FOREVER}) EXPECT_NEAR(granted(timeout_s, 10s), 10, 1);
}

TEST(Retry, EndsAtOnceByTheFirstThingThatEndsIt) {
  const http::Wait own = [](double, auto&, auto) {};
  const http::Wait engines = http::wait_unless_stopped;

  struct Case {
    int attempts;
    double backoff_s;
    http::Wait wait;
    std::chrono::milliseconds left, takes;  // before the deadline; each attempt
    bool stops;                             // said during an attempt
    const char* ends;
  };

  const char* const early =
      "DeadlineExceeded call ran out of time: no attempt could begin before its "
      "deadline; allow more time; last failure: busy";
  const char* const late =
      "DeadlineExceeded call ran out of time: its deadline has passed; "
      "allow more time; last failure: busy";
  const char* const stopped = "Stopped call was stopped by its caller; last failure: busy";
  const char* const only = "Exhausted call failed after 1 attempt (no retries); last failure: busy";
  const char* const twice = "Exhausted call failed after 2 attempts; last failure: busy";
  const Case cases[] = {
      {2, 4, engines, 3s, 0ms, false, early},
      {2, FOREVER, engines, 3s, 0ms, false, early},
      {2, 4, own, 3s, 0ms, false, twice},
      {2, 0, engines, 10ms, 20ms, false, early},
      {2, 0, own, 10ms, 20ms, false, late},
      {1, 4, engines, 10ms, 20ms, false, only},
      {2, 4, engines, 10ms, 20ms, true, stopped},
      {2, 4, own, 3s, 0ms, true, stopped},
      {1, 4, engines, 3s, 0ms, true, stopped}};
  for (const auto& [attempts, backoff_s, wait, left, takes, stops, ends] : cases) {
    bool stop = false;
    const auto start = http::Clock::now();
    http::RetryPolicy policy{.attempts = attempts, .backoff_s = backoff_s, .wait = wait};
    const http::StopTest should_stop = [&] { return stop; };
    policy.should_stop = should_stop;
    policy.deadline = start + left;
    const auto attempt = [&, takes = takes, stops = stops](double) -> std::string {
      std::this_thread::sleep_for(takes);
      stop = stops;
      throw http::Retryable("busy");
    };
    std::string end;
    try {
      end = http::retry(policy, attempt);
    } catch (const http::Stopped& error) {
      end = std::string("Stopped ") + error.what();
    } catch (const http::DeadlineExceeded& error) {
      end = std::string("DeadlineExceeded ") + error.what();
    } catch (const http::Exhausted& error) {
      end = std::string("Exhausted ") + error.what();
    }
    EXPECT_EQ(end, ends);
    EXPECT_LT(seconds_since(start), 1) << ends;  // it could sleep for 3 s and end alike
  }
}

TEST(Wait, IsOverAtOnceWhenThereIsNothingToWaitFor) {
  const auto start = http::Clock::now();
  for (const double period_s : {0.0, -1.0, std::nan(""), -FOREVER}) {
    http::wait_unless_stopped(period_s, {}, std::nullopt);
  }
  EXPECT_THROW(http::wait_unless_stopped(FOREVER, {}, http::Clock::now() + 3s),
               http::DeadlineExceeded);
  EXPECT_LT(seconds_since(start), 0.05);
}

}  // namespace
