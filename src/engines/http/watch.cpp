#include <algorithm>
#include <cmath>
#include <string>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/process.hpp"
#include "engines/http/time.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// A silence limit that was cut to the deadline ends a rounding error before or after it. So near,
// the deadline is what ended the wait.
constexpr std::chrono::milliseconds SAME_MOMENT{2};

std::string seconds(double period_s) {
  std::string digits = std::to_string(period_s);  // six decimals
  digits.erase(digits.find_last_not_of('0') + 1);
  if (digits.ends_with('.')) digits.pop_back();
  return digits + " s";
}

}  // namespace

Watch::Watch(double timeout_s, const StopTest& should_stop, std::optional<Deadline> deadline)
    : _timeout_s(timeout_s), _should_stop(should_stop), _deadline(deadline) {
  moved();
}

void Watch::moved() noexcept {
  const bool any = _timeout_s == 0 || std::isnan(_timeout_s);
  _silent_until = any ? std::nullopt : after(Clock::now(), _timeout_s);
}

void Watch::shorten(double timeout_s) noexcept {
  if (_timeout_s == 0 || !(_timeout_s < timeout_s)) _timeout_s = timeout_s;
  moved();
}

bool Watch::silence_counts() const noexcept {
  return _silent_until && !(_deadline && *_silent_until + SAME_MOMENT >= *_deadline);
}

void Watch::check(std::string_view doing, std::string_view whom) const {
  const auto text = [&](const std::string& what) {
    return (what + " while ").append(doing).append(" ").append(whom);
  };
  check_process();
  if (_should_stop && _should_stop()) throw Stopped(text("stopped by the caller"));
  const auto now = Clock::now();
  if (_deadline && now >= *_deadline)
    throw DeadlineExceeded(text("the deadline passed") + "; allow more time");
  if (silence_counts() && now >= *_silent_until) {
    throw TransportTimeout(text("nothing moved for " + seconds(_timeout_s)));
  }
}

std::chrono::milliseconds Watch::patience() const noexcept {
  const auto now = Clock::now();
  auto end = now + (_should_stop ? STOP_POLL : LONGEST_NAP);
  if (_deadline) end = std::min(end, *_deadline);
  if (silence_counts()) end = std::min(end, *_silent_until);
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(end - now),
                  std::chrono::milliseconds{0});
}

}  // namespace tovren_mapstead::engines::http
