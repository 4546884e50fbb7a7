// Attempts and the waits between them. Knows nothing of chat, JSON or sockets.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

using Clock = std::chrono::steady_clock;

/// The moment by which a call must have ended.
using Deadline = Clock::time_point;

/// Says true once a call should end. Asked on the thread that makes the call, every 25 ms at least
/// and at each read of a reply, so it has to be quick. What it throws ends the call and reaches its
/// caller. May be empty.
using StopTest = std::function<bool()>;

/// Waits about `period_s` seconds between two attempts. Throws Stopped or DeadlineExceeded to end
/// the call; when it returns, the next attempt is made.
using Wait = std::function<void(double period_s, const StopTest& should_stop,
                                std::optional<Deadline> deadline)>;

/// Waits `period_s` seconds on the calling thread. Returns at once for zero, negative or NaN.
/// Throws Stopped within 25 ms after `should_stop` turns true, and DeadlineExceeded at once if the
/// wait would last to `deadline` or past it. What `should_stop` throws passes through. Safe from
/// any thread.
TOVREN_EXPORT void wait_unless_stopped(double period_s, const StopTest& should_stop,
                                       std::optional<Deadline> deadline);

/// A set of HTTP statuses, fixed at compile time where it is a constant.
class StatusSet {
 public:
  constexpr StatusSet() = default;

  /// A status out of range does not compile in a constant and throws std::out_of_range elsewhere.
  constexpr StatusSet(std::initializer_list<int> statuses) {
    for (const int status : statuses) insert(status);
  }

  /// This set united with `first` to `last`, both included.
  [[nodiscard]] constexpr StatusSet with_range(int first, int last) const {
    StatusSet wider = *this;
    for (int status = first; status <= last; ++status) wider.insert(status);
    return wider;
  }

  /// Whether `status` is in it; any number may be asked for.
  [[nodiscard]] constexpr bool contains(int status) const noexcept {
    return status >= 0 && status < END && _member.at(static_cast<std::size_t>(status));
  }

  /// How many statuses are in it.
  [[nodiscard]] constexpr std::size_t size() const noexcept {
    std::size_t count = 0;
    for (const bool member : _member) count += member ? 1 : 0;
    return count;
  }

  /// Whether the same statuses are in both.
  bool operator==(const StatusSet&) const = default;

 private:
  // RFC 9110 gives statuses three digits, of which only 100 to 599 have a class.
  static constexpr int END = 600;

  constexpr void insert(int status) { _member.at(static_cast<std::size_t>(status)) = true; }

  std::array<bool, END> _member{};
};

/// How patiently one call is repeated, and within which bounds. Immutable; `with` copies.
struct TOVREN_EXPORT RetryPolicy {
  const int attempts = 1;            ///< Tries in all, the first included; less than 1 counts as 1.
  const double backoff_s = 1.0;      ///< Seconds before the second try; doubles after each.
  const double timeout_s = 60.0;     ///< Longest silence within one try, in seconds; 0: any.
  const StatusSet retry_statuses{};  ///< Statuses of a reply that call for another try.
  const int detail_chars = 500;      ///< Most characters of a failed reply that an error quotes.
  const Wait wait = wait_unless_stopped;                      ///< Waits between tries.
  const StopTest should_stop{};                               ///< Ends the call; empty: never.
  const std::optional<Deadline> deadline{};                   ///< Ends the call; absent: none.
  const std::size_t max_body_bytes = std::size_t{64} << 20U;  ///< Of a whole reply.
  const std::size_t max_line_bytes = std::size_t{16} << 20U;  ///< Of one line of a stream.

  /// The two bounds that differ from call to call.
  struct Call {
    const StopTest should_stop{};              ///< Ends the call; empty: never.
    const std::optional<Deadline> deadline{};  ///< Ends the call; absent: none.
  };

  /// This policy with both bounds replaced, absent ones too.
  [[nodiscard]] RetryPolicy with(const Call& call) const;
};

/// What a retry loop says of itself and must not say.
struct RetryOptions {
  const std::string label = "call";  ///< Names the operation in error texts.
  const Secrets secrets{};           ///< Kept out of the texts of Stopped, Exhausted and so on.
};

namespace detail {

/// The book-keeping of one `retry`, apart from the attempt itself.
class TOVREN_EXPORT RetryLoop {
 public:
  RetryLoop(const RetryPolicy& policy, const RetryOptions& options)
      : _policy(policy), _options(options), _backoff_s(policy.backoff_s) {}

  /// Opens an attempt and grants its silence limit in seconds. Throws Stopped, DeadlineExceeded.
  double begin();

  /// Notes a failed attempt. Throws Stopped, and Exhausted after the last one.
  void failed(const Retryable& failure);

  /// Waits for the next attempt. Throws Stopped, and DeadlineExceeded when `policy.wait` does.
  void wait();

 private:
  void check_stop() const;
  [[nodiscard]] std::string text(std::string_view outcome) const;

  const RetryPolicy& _policy;
  const RetryOptions& _options;
  int _made = 0;
  double _backoff_s;
  std::string _last_failure;
};

}  // namespace detail

/// Calls `attempt(timeout_s)` until it returns, at most `policy.attempts` times, and returns its
/// value. `timeout_s` is the policy's, cut to what is left before the deadline.
/// A Retryable of the attempt calls for another one after a wait of `backoff_s`, twice that, four
/// times that and so on. The stop test is asked before each attempt and after each that failed.
/// Throws Stopped, DeadlineExceeded (the deadline has passed before an attempt, or `policy.wait`
/// says so) and, when the last attempt has failed, Exhausted; anything else that the attempt, the
/// stop test or the wait throws passes unchanged.
/// Runs on the calling thread; any number of loops may share one policy.
template <class Attempt>
std::invoke_result_t<Attempt&, double> retry(const RetryPolicy& policy, Attempt&& attempt,
                                             const RetryOptions& options = {}) {
  detail::RetryLoop loop(policy, options);
  for (;;) {
    const double timeout_s = loop.begin();
    try {
      return attempt(timeout_s);
    } catch (const Retryable& failure) {
      loop.failed(failure);
    }
    loop.wait();
  }
}

}  // namespace tovren_mapstead::engines::http
