// Retry policy and retry loop. Does not know chat, JSON or sockets.
#pragma once

#include <array>
#include <cstddef>
#include <exception>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "tovren_mapstead/engines/http/bounds.hpp"
#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// A set of HTTP statuses, fixed at compile time where it is a constant.
class StatusSet {
 public:
  constexpr StatusSet() = default;

  /// A status out of range does not compile in a constant and throws std::out_of_range elsewhere.
  constexpr StatusSet(std::initializer_list<int> statuses) {
    for (const int status : statuses) insert(status);
  }

  /// Returns this set united with `first` to `last`, both included.
  [[nodiscard]] constexpr StatusSet with_range(int first, int last) const {
    StatusSet wider = *this;
    for (int status = first; status <= last; ++status) wider.insert(status);
    return wider;
  }

  /// Returns whether `status` is in the set; false for any number that is no status.
  [[nodiscard]] constexpr bool contains(int status) const noexcept {
    return status >= 0 && status < END && _member.at(static_cast<std::size_t>(status));
  }

  /// Returns whether both sets hold the same statuses.
  bool operator==(const StatusSet&) const = default;

 private:
  // RFC 9110 gives statuses three digits, of which only 100 to 599 have a class.
  static constexpr int END = 600;

  constexpr void insert(int status) { _member.at(static_cast<std::size_t>(status)) = true; }

  std::array<bool, END> _member{};
};

/// How often and how patiently one call is retried, and its limits. A value: copy it and change the
/// copy.
struct RetryPolicy {
  int attempts = 1;            ///< Attempts in all, including the first; below 1 counts as 1.
  double backoff_s = 1.0;      ///< Wait before the second attempt, in seconds; doubles each time.
  double timeout_s = 60.0;     ///< Idle timeout of one attempt, in seconds; 0 means no limit.
  StatusSet retry_statuses{};  ///< Statuses of a reply that call for another attempt.
  int detail_chars = 500;      ///< Most characters of a failed reply that an error quotes.
  Wait wait = wait_unless_stopped;                      ///< Waits between attempts.
  StopTest should_stop{};                               ///< Ends the call; empty: never.
  std::optional<Deadline> deadline{};                   ///< Ends the call; absent: no deadline.
  std::size_t max_body_bytes = std::size_t{64} << 20U;  ///< Of a whole reply.
  std::size_t max_line_bytes = std::size_t{16} << 20U;  ///< Of one line of a stream.
};

/// Label and secrets for the error texts of a retry loop.
struct RetryOptions {
  std::string label = "call";  ///< Names the operation.
  Secrets secrets{};           ///< Kept out of the texts of Stopped, Exhausted and so on.
};

/// Returns the HTTP status behind a failure: that of an error of the engine or of the OpenAI client
/// library, or of the error nested in another, such as `llm::LLMError`. Nothing if there was no
/// reply.
[[nodiscard]] TOVREN_EXPORT std::optional<int> status_of(const std::exception& error);

/// Returns whether the same call may succeed later: the failure, or the error nested in it, is a
/// Retryable, an Exhausted or a DeadlineExceeded. False for a failure that repetition does not
/// avoid, such as a wrong key, and for a stop.
[[nodiscard]] TOVREN_EXPORT bool may_succeed_later(const std::exception& error);

/// Returns whether an error of the OpenAI client library is a timeout, a failed connection, or
/// carries a status of `statuses`.
[[nodiscard]] TOVREN_EXPORT bool is_transient(const std::exception& error,
                                              const StatusSet& statuses);

namespace detail {

/// The state of one `retry`, apart from the attempt itself.
class TOVREN_EXPORT RetryLoop {
 public:
  RetryLoop(const RetryPolicy& policy, const RetryOptions& options)
      : _policy(policy), _options(options), _backoff_s(policy.backoff_s) {}

  /// Begins an attempt and returns its idle timeout in seconds. Throws Stopped, DeadlineExceeded.
  double begin();

  /// Records a failed attempt. Throws Stopped, and Exhausted after the last one.
  void failed(const Retryable& failure);

  /// Waits before the next attempt. Throws Stopped and DeadlineExceeded if `policy.wait` does.
  void wait();

 private:
  void check_stop() const;
  [[nodiscard]] std::string text(std::string_view outcome) const;

  const RetryPolicy& _policy;
  const RetryOptions& _options;
  int _made = 0;
  double _backoff_s;
  std::string _last_failure;
  std::optional<int> _last_status;
};

}  // namespace detail

/// Calls `attempt(timeout_s)` until it returns, at most `policy.attempts` times, and returns its
/// value. `timeout_s` is that of the policy, cut to the time that is left before the deadline.
/// After a Retryable it waits `backoff_s`, twice that, four times that and so on, and calls again.
/// The stop test is called before each attempt and after each that failed.
/// Throws Stopped, DeadlineExceeded (the deadline has passed before an attempt, or `policy.wait`
/// says so) and, when the last attempt has failed, Exhausted. Any other exception of the attempt,
/// the stop test or the wait passes unchanged.
/// Runs on the calling thread. Any number of loops may share one policy.
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
