#include "tovren_mapstead/engines/http/retry.hpp"

#include <chrono>

#include "tovren_mapstead/openai.hpp"

#include "text/quote.hpp"

namespace tovren_mapstead::engines::http {

// A timeout is a kind of connection error.
bool is_transient(const std::exception& error, const StatusSet& statuses) {
  if (dynamic_cast<const openai::APIConnectionError*>(&error) != nullptr) return true;
  const auto status = status_of(error);
  return status && statuses.contains(*status);
}

std::optional<int> status_of(const std::exception& error) {
  const auto* const known = dynamic_cast<const openai::OpenAIError*>(&error);
  return known == nullptr ? std::nullopt : known->status();
}

namespace detail {

// Returns "LLM call OUTCOME; last failure: ...". The failure quotes up to `detail_chars` of a
// reply, and has words around the quotation.
std::string RetryLoop::text(std::string_view outcome) const {
  constexpr std::size_t ROOM_FOR_WORDS = 200;
  std::string text = _options.label;
  text.append(" ").append(outcome);
  if (!_last_failure.empty()) text.append("; last failure: ").append(_last_failure);
  return quote(text, _options.secrets, quoted_chars(_policy.detail_chars) + ROOM_FOR_WORDS);
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
    if (now >= *_policy.deadline) {
      throw DeadlineExceeded(text("ran out of time: its deadline has passed; allow more time"));
    }
    const std::chrono::duration<double> left = *_policy.deadline - now;
    // 0 means no limit, so it is cut as well.
    if (timeout_s == 0 || !(timeout_s < left.count())) return left.count();
  }
  return timeout_s;
}

void RetryLoop::failed(const Retryable& failure) {
  ++_made;
  _last_failure = failure.what();
  check_stop();
  if (_made < _policy.attempts) return;
  throw Exhausted(text(_made == 1 ? "failed after 1 attempt (no retries)"
                                  : "failed after " + std::to_string(_made) + " attempts"));
}

void RetryLoop::wait() {
  try {
    _policy.wait(_backoff_s, _policy.should_stop, _policy.deadline);
  } catch (const Stopped&) {
    throw Stopped(text("was stopped by its caller"));
  } catch (const DeadlineExceeded&) {
    throw DeadlineExceeded(
        text("ran out of time: no attempt could begin before its deadline; allow more time"));
  }
  _backoff_s *= 2;
}

}  // namespace detail
}  // namespace tovren_mapstead::engines::http
