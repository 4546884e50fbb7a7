#include <algorithm>
#include <array>
#include <charconv>
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

std::string text(std::string_view what, std::string_view doing, std::string_view whom) {
  return std::string(what).append(" while ").append(doing).append(" ").append(whom);
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

void Watch::check_call(std::string_view doing, std::string_view whom) const {
  check_process();
  if (_should_stop && _should_stop()) throw Stopped(text("stopped by the caller", doing, whom));
  if (_deadline && Clock::now() >= *_deadline) {
    throw DeadlineExceeded(text("the deadline passed", doing, whom) + "; allow more time");
  }
}

void Watch::check(std::string_view doing, std::string_view whom) const {
  check_call(doing, whom);
  if (silence_counts() && Clock::now() >= *_silent_until) {
    throw TransportTimeout(text("nothing moved for " + seconds(_timeout_s), doing, whom));
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
