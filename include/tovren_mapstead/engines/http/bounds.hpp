// What bounds a call: time limits, the deadline and the caller's stop test.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <stop_token>
#include <string_view>
#include <utility>

#include "tovren_mapstead/export.hpp"

/// @namespace tovren_mapstead::engines
/// What the application is built on.

/// The HTTP engine: one exchange within bounds, and the retry loop.
namespace tovren_mapstead::engines::http {

/// The clock of deadlines and time limits.
using Clock = std::chrono::steady_clock;

/// The moment by which a call must have ended.
using Deadline = Clock::time_point;

/// A function that returns true to end the call, or a stop token. Called on the thread that makes
/// the call, at least every 25 ms and at each read of a reply, so it has to be quick. An exception
/// from it ends the call and reaches the caller unchanged. May be empty.
class StopTest : public std::function<bool()> {
 public:
  using std::function<bool()>::function;

  /// Takes a function as it is.
  StopTest(std::function<bool()> test) noexcept  // NOLINT(google-explicit-constructor)
      : function(std::move(test)) {}

  /// Ends the call once a stop of the token is requested.
  StopTest(std::stop_token token)  // NOLINT(google-explicit-constructor)
      : function([token = std::move(token)] { return token.stop_requested(); }) {}
};

/// Waits about `period_s` seconds between two attempts. Throws Stopped or DeadlineExceeded to end
/// the call; when it returns, the next attempt is made.
using Wait = std::function<void(double period_s, const StopTest& should_stop,
                                std::optional<Deadline> deadline)>;

/// Waits `period_s` seconds on the calling thread. Returns at once for zero, negative or NaN.
/// Throws Stopped within 25 ms after `should_stop` turns true, and DeadlineExceeded at once if the
/// wait would last to `deadline` or past it. Exceptions of `should_stop` pass through. Thread-safe.
TOVREN_EXPORT void wait_unless_stopped(double period_s, const StopTest& should_stop,
                                       std::optional<Deadline> deadline);

/// A Wait for tests: returns at once.
inline void no_wait(double, const StopTest&, std::optional<Deadline>) noexcept {}

/// The bounds of every wait in one exchange. A transport waits for at most `patience` at a time,
/// calls `check` in between, and `moved` when bytes have been sent or received. For the thread of
/// the call only.
class TOVREN_EXPORT Watch {
 public:
  /// `timeout_s` is the idle timeout in seconds; 0, NaN or more than the clock can count mean no
  /// limit. `should_stop` must outlive this object.
  Watch(double timeout_s, const StopTest& should_stop, std::optional<Deadline> deadline);

  /// Restarts the idle timeout, because data has moved.
  void moved() noexcept;

  /// Cuts the idle timeout to `timeout_s` seconds, and restarts it.
  void shorten(double timeout_s) noexcept;

  /// Throws Stopped, DeadlineExceeded or, once the idle timeout has passed, TimedOut. `doing` and
  /// `peer` say in their texts what is under way: "waiting for" and the host. Exceptions of the
  /// stop test pass through.
  void check(std::string_view doing, std::string_view peer) const;

  /// Does the same without the idle timeout: throws Stopped and DeadlineExceeded only.
  void check_call(std::string_view doing, std::string_view peer) const;

  /// Returns the idle timeout in seconds, as given or shortened.
  [[nodiscard]] double timeout_s() const noexcept { return _timeout_s; }

  /// Returns how long to wait at most before the next `check`; never negative.
  [[nodiscard]] std::chrono::milliseconds patience() const noexcept;

 private:
  [[nodiscard]] bool timeout_counts() const noexcept;

  double _timeout_s;
  const StopTest& _should_stop;
  std::optional<Deadline> _deadline;
  std::optional<Deadline> _times_out_at;
};

}  // namespace tovren_mapstead::engines::http
