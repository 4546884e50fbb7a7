#include "tovren_mapstead/engines/http/retry.hpp"

#include <algorithm>
#include <thread>

#include "engines/http/process.hpp"
#include "engines/http/quote.hpp"
#include "engines/http/time.hpp"

namespace tovren_mapstead::engines::http {

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
    const auto next = now + (should_stop ? STOP_POLL : LONGEST_NAP);
    std::this_thread::sleep_until(end ? std::min(next, *end) : next);
  }
}

RetryPolicy RetryPolicy::with(const Call& call) const {
  return {.attempts = attempts,
          .backoff_s = backoff_s,
          .timeout_s = timeout_s,
          .retry_statuses = retry_statuses,
          .detail_chars = detail_chars,
          .wait = wait,
          .should_stop = call.should_stop,
          .deadline = call.deadline,
          .max_body_bytes = max_body_bytes,
          .max_line_bytes = max_line_bytes};
}

namespace detail {

// "LLM call OUTCOME; last failure: ...". The failure was cut to `detail_chars` where it quotes a
// reply; the room beyond that is for the words around the quotation.
std::string RetryLoop::text(std::string_view outcome) const {
  constexpr std::size_t ROOM_FOR_WORDS = 200;
  std::string text = _options.label;
  text.append(" ").append(outcome);
  if (!_last_failure.empty()) text.append("; last failure: ").append(_last_failure);
  return quote(text, _options.secrets, detail_limit(_policy) + ROOM_FOR_WORDS);
}

void RetryLoop::check_stop() const {
  if (_policy.should_stop && _policy.should_stop()) {
    throw Stopped(text("was stopped by its caller"));
  }
}

double RetryLoop::begin() {
  check_stop();
  const double timeout_s = _policy.timeout_s;
  if (_policy.deadline) {
    const auto now = Clock::now();
    if (now >= *_policy.deadline)
      throw DeadlineExceeded(text("ran out of time: its deadline has passed; allow more time"));
    const std::chrono::duration<double> left = *_policy.deadline - now;
    // 0 stands for any silence, which the deadline cuts as well.
    if (timeout_s == 0 || !(timeout_s < left.count())) return left.count();
  }
  return timeout_s;
}

void RetryLoop::failed(const Retryable& failure) {
  ++_made;
  _last_failure = failure.what();
  check_stop();
  if (_made < _policy.attempts) return;
  throw Exhausted(text("failed " + (_made == 1 ? std::string("at the only try")
                                               : "after " + std::to_string(_made) + " tries")));
}

void RetryLoop::wait() {
  try {
    _policy.wait(_backoff_s, _policy.should_stop, _policy.deadline);
  } catch (const Stopped&) {
    throw Stopped(text("was stopped by its caller"));
  } catch (const DeadlineExceeded&) {
    throw DeadlineExceeded(
        text("ran out of time: no try could begin before its deadline; allow more time"));
  }
  _backoff_s *= 2;
}

}  // namespace detail
}  // namespace tovren_mapstead::engines::http
