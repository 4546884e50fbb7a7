#include "tovren_mapstead/engines/http/retry.hpp"

#include <chrono>

#include "tovren_mapstead/openai.hpp"

#include "text/quote.hpp"

namespace tovren_mapstead::engines::http {

namespace {

// Calls `visit` with the error that is nested in `error`, if there is one.
template <class Visit>
void visit_cause(const std::exception& error, Visit visit) {
  const auto* const nested = dynamic_cast<const std::nested_exception*>(&error);
  if (nested == nullptr || nested->nested_ptr() == nullptr) return;
  try {
    nested->rethrow_nested();
  } catch (const std::exception& cause) {
    visit(cause);
  } catch (...) {  // tells nothing
  }
}

template <class Type>
bool is(const std::exception& error) {
  return dynamic_cast<const Type*>(&error) != nullptr;
}

}  // namespace

// A timeout is a kind of connection error.
bool is_transient(const std::exception& error, const StatusSet& statuses) {
  if (is<openai::APIConnectionError>(error)) return true;
  const auto status = status_of(error);
  return status && statuses.contains(*status);
}

std::optional<int> status_of(const std::exception& error) {
  if (const auto* known = dynamic_cast<const openai::OpenAIError*>(&error)) return known->status();
  if (const auto* known = dynamic_cast<const Error*>(&error)) return known->status();
  std::optional<int> status;
  visit_cause(error, [&](const std::exception& cause) { status = status_of(cause); });
  return status;
}

bool may_succeed_later(const std::exception& error) {
  if (is<Retryable>(error) || is<Exhausted>(error) || is<DeadlineExceeded>(error)) return true;
  bool later = false;
  visit_cause(error, [&](const std::exception& cause) { later = may_succeed_later(cause); });
  return later;
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
    throw Stopped(text("was stopped by its caller"), _last_status);
  }
}

double RetryLoop::begin() {
  check_stop();
  const double timeout_s = _policy.timeout_s;
  if (_policy.deadline) {
    const auto now = Clock::now();
    if (now >= *_policy.deadline) {
      throw DeadlineExceeded(text("ran out of time: its deadline has passed; allow more time"),
                             _last_status);
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
  _last_status = failure.status();
  check_stop();
  if (_made < _policy.attempts) return;
  throw Exhausted(text(_made == 1 ? "failed after 1 attempt (no retries)"
                                  : "failed after " + std::to_string(_made) + " attempts"),
                  _last_status);
}

void RetryLoop::wait() {
  try {
    _policy.wait(_backoff_s, _policy.should_stop, _policy.deadline);
  } catch (const Stopped&) {
    throw Stopped(text("was stopped by its caller"), _last_status);
  } catch (const DeadlineExceeded&) {
    throw DeadlineExceeded(
        text("ran out of time: no attempt could begin before its deadline; allow more time"),
        _last_status);
  }
  _backoff_s *= 2;
}

}  // namespace detail
}  // namespace tovren_mapstead::engines::http
