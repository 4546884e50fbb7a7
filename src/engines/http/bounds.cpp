#include "tovren_mapstead/engines/http/bounds.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <string>
#include <thread>

#include "tovren_mapstead/engines/http/errors.hpp"

#include "engines/http/clock.hpp"
#include "engines/http/process.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// An idle timeout that was cut to the deadline ends a rounding error before or after it. So near,
// the deadline is what ended the wait.
constexpr std::chrono::milliseconds SAME_MOMENT{2};

// A bare stop test cannot wake a sleeper, so it is asked this often: it is seen after 10 ms on
// average, and within the 25 ms that are promised also on a busy machine, for less than a
// thousandth of a core.
constexpr std::chrono::milliseconds STOP_POLL{20};

// The longest sleep without a stop test, because the end of the process is looked for as well.
constexpr std::chrono::milliseconds LONGEST_SLEEP{250};

std::chrono::milliseconds longest_sleep(const StopTest& should_stop) {
  return should_stop ? STOP_POLL : LONGEST_SLEEP;
}

// "0.5 s" in every locale.
std::string seconds(double period_s) {
  constexpr int DECIMALS = 6;
  std::array<char, 32> room{};  // no limit that counts is longer than a century
  const auto [end, error] = std::to_chars(room.data(), room.data() + room.size(), period_s,
                                          std::chars_format::fixed, DECIMALS);
  std::string digits(room.data(), error == std::errc{} ? end : room.data());
  digits.erase(digits.find_last_not_of('0') + 1);
  if (digits.ends_with('.')) digits.pop_back();
  return digits + " s";
}

std::string text(std::string_view what, std::string_view doing, std::string_view peer) {
  return std::string(what).append(" while ").append(doing).append(" ").append(peer);
}

}  // namespace

void wait_unless_stopped(double period_s, const StopTest& should_stop,
                         std::optional<Deadline> deadline) {
  const auto end = after(Clock::now(), period_s);
  for (;;) {
    check_process();
    if (should_stop && should_stop()) throw Stopped("stopped by the caller during a wait");
    if (deadline && (!end || *end >= *deadline)) {
      throw DeadlineExceeded("the wait would last past the deadline");
    }
    const auto now = Clock::now();
    if (end && now >= *end) return;
    const auto next = now + longest_sleep(should_stop);
    std::this_thread::sleep_until(end ? std::min(next, *end) : next);
  }
}

Watch::Watch(double timeout_s, const StopTest& should_stop, std::optional<Deadline> deadline)
    : _timeout_s(timeout_s), _should_stop(should_stop), _deadline(deadline) {
  moved();
}

void Watch::moved() noexcept {
  _times_out_at = time_limit(_timeout_s);
}

void Watch::shorten(double timeout_s) noexcept {
  if (_timeout_s == 0 || !(_timeout_s < timeout_s)) _timeout_s = timeout_s;
  moved();
}

bool Watch::timeout_counts() const noexcept {
  return _times_out_at && !(_deadline && *_times_out_at + SAME_MOMENT >= *_deadline);
}

void Watch::check_call(std::string_view doing, std::string_view peer) const {
  check_process();
  if (_should_stop && _should_stop()) throw Stopped(text("stopped by the caller", doing, peer));
  if (_deadline && Clock::now() >= *_deadline) {
    throw DeadlineExceeded(text("the deadline passed", doing, peer) + "; allow more time");
  }
}

void Watch::check(std::string_view doing, std::string_view peer) const {
  check_call(doing, peer);
  if (timeout_counts() && Clock::now() >= *_times_out_at) {
    throw TimedOut(text("timed out: no data for " + seconds(_timeout_s), doing, peer));
  }
}

std::chrono::milliseconds Watch::patience() const noexcept {
  const auto now = Clock::now();
  auto end = now + longest_sleep(_should_stop);
  if (_deadline) end = std::min(end, *_deadline);
  if (timeout_counts()) end = std::min(end, *_times_out_at);
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(end - now),
                  std::chrono::milliseconds{0});
}

}  // namespace tovren_mapstead::engines::http
