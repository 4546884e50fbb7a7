// Seconds as callers give them, turned into moments without overflow.
#pragma once

#include <chrono>
#include <ctime>
#include <optional>

#include "tovren_mapstead/engines/http/retry.hpp"

namespace tovren_mapstead::engines::http {

/// A bare stop test cannot wake a sleeper, so it is asked this often: seen after 10 ms on average,
/// and within the 25 ms that are promised on a busy machine, too, for less than a thousandth of a
/// core.
inline constexpr std::chrono::milliseconds STOP_POLL{20};

/// The longest sleep where there is no stop test to ask: what the process does is asked as well.
inline constexpr std::chrono::milliseconds LONGEST_NAP{250};

/// `start` plus `period_s` seconds; `start` for a negative or NaN period, absent for one beyond a
/// century, which no clock here can count.
[[nodiscard]] inline std::optional<Deadline> after(Deadline start, double period_s) noexcept {
  constexpr double CENTURY_S = 100 * 365.25 * 86400;
  if (period_s > CENTURY_S) return std::nullopt;
  if (!(period_s > 0)) return start;
  return start +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(period_s));
}

/// The steady clock as of its last tick, some milliseconds back at most, for a quarter of the cost.
[[nodiscard]] inline Clock::time_point coarse_now() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return Clock::time_point(std::chrono::seconds(now.tv_sec) +
                           std::chrono::nanoseconds(now.tv_nsec));
}

}  // namespace tovren_mapstead::engines::http
