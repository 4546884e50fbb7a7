// Seconds as callers give them, converted to moments without overflow.
#pragma once

#include <chrono>
#include <cmath>
#include <ctime>
#include <optional>

#include "tovren_mapstead/engines/http/bounds.hpp"

namespace tovren_mapstead::engines::http {

/// Returns `start` plus `period_s` seconds; `start` for a negative or NaN period; nothing for a
/// period beyond a century, which no clock here can count.
[[nodiscard]] inline std::optional<Deadline> after(Deadline start, double period_s) noexcept {
  constexpr double CENTURY_S = 100 * 365.25 * 86400;
  if (period_s > CENTURY_S) return std::nullopt;
  if (!(period_s > 0)) return start;
  return start +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(period_s));
}

/// Returns when a limit of `timeout_s` seconds from now ends; nothing for 0, NaN and a limit beyond
/// a century, which mean that there is none.
[[nodiscard]] inline std::optional<Deadline> time_limit(double timeout_s) noexcept {
  return timeout_s == 0 || std::isnan(timeout_s) ? std::nullopt : after(Clock::now(), timeout_s);
}

/// Returns whether `limit` has passed. By the coarse clock, which lags by some milliseconds, so
/// that no limit ends early, and costs a quarter.
[[nodiscard]] inline bool has_passed(const std::optional<Deadline>& limit) noexcept {
  if (!limit) return false;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec) >
         limit->time_since_epoch();
}

}  // namespace tovren_mapstead::engines::http
