#include <climits>
#include <limits>

#include "support.hpp"

namespace {

using namespace support;

static_assert(http::StatusSet{408, 599}.contains(599));
static_assert(!http::StatusSet{599}.contains(600) && !http::StatusSet{100}.contains(-1));

constexpr double FOREVER = std::numeric_limits<double>::infinity();

TEST(Retry, WaitsLongerEachTimeAndGivesUp) {
  struct Case {
    int attempts;
    double backoff_s;
    std::vector<double> waits;
    const char* ends = nullptr;  // null: answered
  };

  const char* const once = "LLM call failed after 1 attempt (no retries); last failure: busy ***";
  const Case cases[] = {
      {4, 1.0, {1, 2, 4}},
      {3, 0.5, {0.5, 1}, "LLM call failed after 3 attempts; last failure: busy ***"},
      {1, 1.0, {}, once},
      {INT_MIN, 1.0, {}, once},
      {INT_MAX, 1e308, {1e308, FOREVER, FOREVER}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.attempts);
    std::vector<double> waits;
    const http::RetryPolicy policy{.attempts = c.attempts,
                                   .backoff_s = c.backoff_s,
                                   .timeout_s = 7,
                                   .wait = [&](double s, auto&, auto) { waits.push_back(s); }};
    int left = 3;  // failures before the answer
    const auto attempt = [&](double timeout_s) {
      EXPECT_EQ(timeout_s, 7);
      return left-- > 0 ? throw http::Retryable("busy KEY-1") : 42;
    };
    const auto act = [&] {
      return http::retry(policy, attempt, {.label = "LLM call", .secrets = {"KEY-1"}});
    };
    if (c.ends == nullptr) {
      EXPECT_EQ(act(), 42);
    } else {
      EXPECT_EQ(text_of<http::Exhausted>(act), c.ends);
    }
    EXPECT_EQ(waits, c.waits);
  }
}

TEST(Retry, CutsTheTimeLimitToTheDeadline) {
  const auto granted = [](double timeout_s) {
    const http::RetryPolicy policy{.timeout_s = timeout_s, .deadline = http::Clock::now() + 10s};
    return http::retry(policy, [](double limit_s) { return limit_s; });
  };
  EXPECT_EQ(granted(2), 2);
  for (const double timeout_s : {60.0, 0.0, FOREVER}) EXPECT_NEAR(granted(timeout_s), 10, 1);
}

TEST(Retry, EndsAtOnceByTheFirstThingThatEndsIt) {
  struct Case {
    const char* ends;
    double backoff_s;
    std::chrono::milliseconds left;  // before the deadline
    int attempts = 2;
    bool own_wait = false;              // which knows no bounds
    std::chrono::milliseconds takes{};  // each attempt
    int stops_after = 9;                // attempts
  };

  const char* const early =
      "call ran out of time: no attempt could begin before its deadline; allow more time; last "
      "failure: busy";
  const char* const late =
      "call ran out of time: its deadline has passed; allow more time; last failure: busy";
  const char* const stopped = "call was stopped by its caller; last failure: busy";
  const Case cases[] = {
      {.ends = early, .backoff_s = FOREVER, .left = 3s},
      {.ends = early, .backoff_s = 0, .left = 10ms, .takes = 20ms},
      {.ends = late, .backoff_s = 0, .left = 10ms, .own_wait = true, .takes = 20ms},
      {.ends = "call failed after 2 attempts; last failure: busy",
       .backoff_s = 4,
       .left = 3s,
       .own_wait = true},
      {.ends = "call failed after 1 attempt (no retries); last failure: busy",
       .backoff_s = 4,
       .left = 10ms,
       .attempts = 1,
       .takes = 20ms},
      {.ends = stopped, .backoff_s = 4, .left = 10ms, .takes = 20ms, .stops_after = 1}};
  for (const Case& c : cases) {
    int made = 0;
    const auto start = http::Clock::now();
    http::RetryPolicy policy{.attempts = c.attempts,
                             .backoff_s = c.backoff_s,
                             .should_stop = [&] { return made >= c.stops_after; },
                             .deadline = start + c.left};
    if (c.own_wait) policy.wait = [](double, auto&, auto) {};
    const auto attempt = [&](double) -> std::string {
      std::this_thread::sleep_for(c.takes);
      ++made;
      throw http::Retryable("busy");
    };
    const auto act = [&] { return http::retry(policy, attempt); };
    EXPECT_EQ(contains(c.ends, "stopped")   ? text_of<http::Stopped>(act)
              : contains(c.ends, "ran out") ? text_of<http::DeadlineExceeded>(act)
                                            : text_of<http::Exhausted>(act),
              c.ends);
    EXPECT_LT(seconds_since(start), 2) << c.ends;  // it could sleep for 3 s and end alike
  }
  const http::RetryPolicy stopping{.attempts = 2,
                                   .wait = [](double, auto&, auto) { throw http::Stopped(""); }};
  const auto busy = [](double) -> std::string { throw http::Retryable("busy"); };
  EXPECT_EQ(text_of<http::Stopped>([&] { http::retry(stopping, busy); }), stopped);
}

TEST(Wait, LastsAsLongAsItIsAskedTo) {
  const auto lasts = [](double period_s, const http::StopTest& stop) {
    const auto start = http::Clock::now();
    http::wait_unless_stopped(period_s, stop, {});
    return seconds_since(start);
  };
  for (const double period_s : {0.0, -1.0, std::nan(""), -FOREVER})
    EXPECT_LT(lasts(period_s, {}), 1);
  EXPECT_GE(lasts(0.3, {}), 0.3);
  EXPECT_GE(lasts(0.1, [] { return false; }), 0.1);
}

TEST(Watch, SaysHowLongNothingCame) {
  const http::StopTest none;
  const http::Watch watch(0.005, none, {});
  std::this_thread::sleep_for(6ms);
  EXPECT_EQ(text_of<http::TimedOut>([&] { watch.check("waiting for", "h"); }),
            "timed out: no data for 0.005 s while waiting for h");
}

}  // namespace
