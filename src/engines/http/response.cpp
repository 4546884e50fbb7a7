#include "tovren_mapstead/engines/http/response.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "engines/http/clock.hpp"
#include "engines/http/lines.hpp"
#include "engines/http/process.hpp"
#include "json/json_mend.hpp"
#include "text/characters.hpp"
#include "text/quote.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// How long the text of a failed reply may take to come. Its status is known already, so the text is
// worth less patience than an answer.
constexpr double QUOTE_PATIENCE_S = 5.0;

// The most that a transport hands out at once of a reply that comes fast, and the padding. To grow
// to it later would need the memory twice for a while.
constexpr std::size_t BURST_BYTES = (std::size_t{64} << 10U) + JsonReader::PADDING;

std::string mebibytes(std::size_t bytes) {
  constexpr std::size_t MIB = std::size_t{1} << 20U;
  return bytes % MIB == 0 ? std::to_string(bytes / MIB) + " MiB" : std::to_string(bytes) + " bytes";
}

}  // namespace

struct Response::Impl {
  Impl(Transport& transport, Request request, double timeout_s, const RetryPolicy& policy_in,
       Secrets secrets_in)
      : policy(policy_in),
        secrets(std::move(secrets_in)),
        watch(timeout_s, policy.should_stop, policy.deadline),
        exchange(open(transport, std::move(request))) {
    for (std::string& secret : exchange->secrets()) secrets.push_back(std::move(secret));
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  ~Impl() {
    // While an exception passes, the reply was given up: the server should not go on with it.
    if (!failed && std::uncaught_exceptions() == exceptions_before) exchange->finish();
  }

  std::unique_ptr<Exchange> open(Transport& transport, Request request) {
    return guarded([&] {
      auto opened = transport.open(std::move(request), watch);
      if (!opened) throw TransportError("the transport gave no exchange", false);
      return opened;
    });
  }

  // Runs a step of the transport. The one place where a transport's failure becomes an error of the
  // engine. A transport may throw the engine's errors as well: only their secrets are removed.
  template <class Step>
  std::invoke_result_t<Step> guarded(Step step) {
    try {
      return step();
    } catch (const TransportError& error) {
      failed = true;
      const std::string text = quote(error.what(), secrets);
      // A proxy's status sorts the failure, but it is not the status of a reply.
      const auto status = error.status();
      const bool again = status ? policy.retry_statuses.contains(*status) : error.transient();
      if (again) throw Retryable(text);
      throw HttpFailure("request failed: " + text);
    } catch (Error& error) {
      failed = true;
      error.redact(secrets);
      throw;
    } catch (...) {
      failed = true;
      throw;
    }
  }

  // Appends what comes next to `into`; returns false at the end of the body. Checks stop and
  // deadline itself, because a transport of the caller's may not.
  bool pull(std::string& into) {
    if (std::exchange(reading, true)) {
      guarded([&] { watch.check_call("reading", "the reply"); });
    }
    return guarded([&] { return exchange->read(into, watch); });
  }

  // Reads more of the body into the lines; returns false at the end of the body.
  bool fill() {
    check_line(lines.pending());
    std::string& buffer = lines.to_fill();
    if (reading) buffer.reserve(BURST_BYTES);
    const bool more = pull(buffer);
    lines.filled();
    if (lines.pending() > 0 && has_passed(lines_end_at)) {
      failed = true;
      throw Retryable("stream exceeded timeout before completing");
    }
    return more;
  }

  [[noreturn]] void fail(const std::string& reason) {
    failed = true;
    throw HttpFailure(redact("request failed: " + reason, secrets));
  }

  void check_line(std::size_t bytes) {
    if (bytes > policy.max_line_bytes) fail_line();
  }

  [[noreturn]] void fail_line() {
    fail("a line of the reply is longer than " + mebibytes(policy.max_line_bytes));
  }

  const CallGuard guard;
  const int exceptions_before = std::uncaught_exceptions();
  const RetryPolicy& policy;
  Secrets secrets;
  bool failed = false;
  Watch watch;
  std::unique_ptr<Exchange> exchange;
  JsonReader reader;
  LineBuffer lines;
  std::optional<Deadline> lines_end_at;
  bool reading = false;  // of the body
};

Response::Response(Transport& transport, Request request, double timeout_s,
                   const RetryPolicy& policy, const Secrets& secrets)
    : _impl(std::make_unique<Impl>(transport, std::move(request), timeout_s, policy, secrets)) {}

Response::Response(Response&&) noexcept = default;

Response::~Response() = default;

const Head& Response::head() const noexcept {
  return _impl->exchange->head();
}

std::optional<std::string_view> Response::next_line() {
  Impl& self = *_impl;
  for (bool more = true; more; more = self.fill()) {
    if (const auto line = self.lines.next()) {
      self.check_line(line->size());
      return line;
    }
  }
  return self.lines.last();
}

const Secrets& Response::secrets() const noexcept {
  return _impl->secrets;
}

void Response::limit_lines(double timeout_s) {
  _impl->lines_end_at = time_limit(timeout_s);
}

JsonReader& Response::reader() {
  return _impl->reader;
}

std::string Response::read_rest(std::size_t max_bytes) {
  Impl& self = *_impl;
  std::string body = self.lines.take();
  do {
    if (body.size() > max_bytes) self.fail("the reply is larger than " + mebibytes(max_bytes));
  } while (self.pull(body));
  return body;
}

std::string Response::quote_rest() {
  Impl& self = *_impl;
  std::string body = self.lines.take();
  self.watch.shorten(QUOTE_PATIENCE_S);
  const auto end = Clock::now() + std::chrono::duration<double>(QUOTE_PATIENCE_S);
  try {
    while (body.size() < QUOTED_BYTES && Clock::now() < end && self.pull(body)) {
    }
  } catch (const Retryable&) {  // what has come is enough
  } catch (const HttpFailure&) {
  }
  return quote(body, self.secrets, quoted_chars(self.policy.detail_chars));
}

std::string content_type(const Response& reply) {
  return lower_case(reply.head().content_type);
}

JsonValue read_json(Response& reply, const RetryPolicy& policy, const Secrets& secrets) {
  std::string body = reply.read_rest(policy.max_body_bytes);
  const std::size_t size = body.size();
  body.append(JsonReader::PADDING, '\0');
  std::string_view text(body.data(), size);
  if (text.starts_with(BYTE_ORDER_MARK)) text.remove_prefix(BYTE_ORDER_MARK.size());
  const JsonValue root = reply.reader().parse_padded(text);
  if (root.present()) return root;
  std::string what = "request failed: the reply is not JSON; check that the URL is that of an API";
  switch (fault_of(text)) {
    case JsonFault::cut_short:
      throw Retryable("reply breaks off in the middle of its JSON");
    case JsonFault::too_deep:
      what = "request failed: the JSON of the reply is nested too deeply";
      break;
    case JsonFault::wrong:
      break;
  }
  throw HttpFailure(
      redact(what, secrets), reply.head().status,
      quote(text.substr(0, QUOTED_BYTES), secrets, quoted_chars(policy.detail_chars)));
}

}  // namespace tovren_mapstead::engines::http
