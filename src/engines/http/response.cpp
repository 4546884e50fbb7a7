#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/send.hpp"

#include "engines/http/process.hpp"
#include "engines/http/quote.hpp"
#include "engines/http/text.hpp"
#include "engines/http/time_limit.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// How long the text of a failed reply may take to come: its status is known already, so it is not
// worth the patience that an answer is.
constexpr double QUOTE_PATIENCE_S = 5.0;

// What a transport may hand out at once of a reply that comes fast, and the padding: room for it
// all, or growing to it would cost as much again for a while.
constexpr std::size_t BURST_BYTES = (std::size_t{64} << 10U) + Response::PADDING;

std::string mebibytes(std::size_t bytes) {
  constexpr std::size_t MIB = std::size_t{1} << 20U;
  return bytes % MIB == 0 ? std::to_string(bytes / MIB) + " MiB" : std::to_string(bytes) + " bytes";
}

// How many bytes at the end of `text` begin a UTF-8 character that needs more bytes.
std::size_t unfinished(std::string_view text) {
  constexpr std::size_t LONGEST = 4;
  for (std::size_t width = 1; width < LONGEST && width <= text.size(); ++width) {
    // The least and the greatest byte that can follow: each lead takes one of the two.
    for (const char next : {'\x80', '\xBF'}) {
      std::array<char, LONGEST> whole{};
      whole.fill(next);
      text.copy(whole.data(), width, text.size() - width);
      if (read_utf8({whole.data(), whole.size()}).width > width) return width;
    }
  }
  return 0;
}

// Where the next `character` stands in a growing buffer. Looks at each byte once, however short the
// lines are and however rare the character.
class Finder {
 public:
  explicit Finder(char character) : _character(character) {}

  // The first place at or after `start`, or the size of the buffer.
  std::size_t next(std::string_view buffer, std::size_t start) {
    if (_at < start || (_at < buffer.size() && buffer[_at] != _character)) {
      _at = std::min(buffer.find(_character, std::max(_at, start)), buffer.size());
    }
    return _at;
  }

  // The buffer has lost its first `count` bytes.
  void shift(std::size_t count) { _at -= std::min(_at, count); }

 private:
  char _character;
  std::size_t _at = 0;  // no such character stands between the start and here
};

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
    return guarded([&] { return transport.open(std::move(request), watch); });
  }

  // The one place where what went wrong on the way becomes an error of the engine. A transport of
  // the caller's may throw those of the engine, too: they stay what they are, without the secrets.
  template <class Step>
  std::invoke_result_t<Step> guarded(Step step) {
    try {
      return step();
    } catch (const TransportTimeout& error) {
      failed = true;
      throw TimedOut(quote(error.what(), secrets, QUOTED_BYTES));
    } catch (const TransportError& error) {
      fail(error);
    } catch (const HttpFailure& failure) {
      failed = true;
      throw redacted(failure);
    } catch (const TimedOut& error) {
      fail_again(error);
    } catch (const Retryable& error) {
      fail_again(error);
    } catch (const Stopped& error) {
      fail_again(error);
    } catch (const DeadlineExceeded& error) {
      fail_again(error);
    } catch (const Exhausted& error) {
      fail_again(error);
    } catch (const Error& error) {
      fail_again(error);
    } catch (...) {
      failed = true;
      throw;
    }
  }

  template <class Kind>
  [[noreturn]] void fail_again(const Kind& error) {
    failed = true;
    throw Kind(redact(error.what(), secrets), error.status());
  }

  [[nodiscard]] HttpFailure redacted(const HttpFailure& failure) const {
    const std::string text = redact(failure.what(), secrets);
    const std::string detail = redact(failure.detail(), secrets);
    const std::string tail = ": " + detail;
    // A secret that reached into the detail has taken its start away.
    if (detail.empty() || !text.ends_with(tail)) return HttpFailure(text, failure.status());
    return HttpFailure(text.substr(0, text.size() - tail.size()), failure.status(), detail);
  }

  [[noreturn]] void fail(const TransportError& error) {
    failed = true;
    const std::string text = quote(error.what(), secrets, QUOTED_BYTES);
    // A proxy's status is not the server's: it sorts the failure, and is told in the text alone.
    const auto status = error.status();
    if (status ? policy.retry_statuses.contains(*status) : error.transient()) throw Retryable(text);
    fail(text);
  }

  // Appends what comes next to `into`; false at the end of the body. Asks for stop and deadline
  // itself: a transport of the caller's may not.
  bool pull(std::string& into) {
    if (std::exchange(reading, true)) {
      guarded([&] { watch.check_call("reading", "the reply"); });
    }
    return guarded([&] { return exchange->read(into, watch); });
  }

  // Gets more of the body into the buffer; false at the end of the body.
  bool fill() {
    buffer.resize(size);  // takes off the padding
    if (start > 0) {
      buffer.erase(0, start);
      line_feed.shift(start);
      carriage_return.shift(start);
      start = 0;
    }
    check_line(buffer.size());
    if (reading) buffer.reserve(BURST_BYTES);
    const bool more = pull(buffer);
    size = buffer.size();
    buffer.append(PADDING, '\0');
    if (size > 0) guarded([&] { lines_limit.check(); });
    return more;
  }

  // Passes over the LF of a CRLF whose CR has ended its line already, so that a sender that stops
  // between the two is not waited for.
  void skip_line_feed() {
    if (!after_carriage_return || start == size) return;
    after_carriage_return = false;
    if (buffer[start] == '\n') ++start;
  }

  // What has come and has not been handed out.
  std::string take_buffer() {
    skip_line_feed();
    line_feed = Finder('\n');
    carriage_return = Finder('\r');
    buffer.resize(std::exchange(size, 0));
    return std::exchange(buffer, {}).substr(std::exchange(start, 0));
  }

  [[noreturn]] void fail(const std::string& reason) {
    failed = true;
    throw HttpFailure(redact("request failed: " + reason, secrets));
  }

  void check_line(std::size_t bytes) {
    if (bytes <= policy.max_line_bytes) return;
    fail("a line of the reply is longer than " + mebibytes(policy.max_line_bytes));
  }

  // Cuts the line that ends at `end` off the buffer, with its line end if it has come.
  std::string_view take_line(std::size_t end) {
    constexpr std::string_view BYTE_ORDER_MARK = "\uFEFF";
    check_line(end - start);
    std::string_view line(buffer.data() + start, end - start);
    start = std::min(end + 1, size);
    if (std::exchange(at_body_start, false) && line.starts_with(BYTE_ORDER_MARK)) {
      line.remove_prefix(BYTE_ORDER_MARK.size());
    }
    return line;
  }

  const UnderWay under_way;
  const int exceptions_before = std::uncaught_exceptions();
  const RetryPolicy& policy;
  Secrets secrets;
  bool failed = false;
  Watch watch;
  std::unique_ptr<Exchange> exchange;
  std::optional<JsonReader> reader;  // where the exchange has none
  std::string buffer;
  TimeLimit lines_limit{0};
  bool reading = false;   // of the body
  std::size_t start = 0;  // of what has not been handed out
  std::size_t size = 0;   // of what has come; behind it is padding
  Finder line_feed{'\n'};
  Finder carriage_return{'\r'};
  bool at_body_start = true;
  bool after_carriage_return = false;
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
  for (;;) {
    self.skip_line_feed();
    const std::string_view arrived(self.buffer.data(), self.size);
    std::size_t end = std::min(self.line_feed.next(arrived, self.start),
                               self.carriage_return.next(arrived, self.start));
    if (end < self.size) {
      self.after_carriage_return = self.buffer[end] == '\r';
    } else {
      if (self.fill()) continue;
      self.size -= unfinished({self.buffer.data() + self.start, self.size - self.start});
      if (self.start == self.size) return std::nullopt;
      end = self.size;
    }
    return self.take_line(end);
  }
}

const Secrets& Response::secrets() const noexcept {
  return _impl->secrets;
}

void Response::limit_lines(double timeout_s) {
  _impl->lines_limit = TimeLimit(timeout_s);
}

JsonReader& Response::reader() {
  if (JsonReader* const kept = _impl->exchange->reader()) return *kept;
  if (!_impl->reader) _impl->reader.emplace();
  return *_impl->reader;
}

std::string Response::read_rest(std::size_t max_bytes) {
  Impl& self = *_impl;
  std::string body = self.take_buffer();
  do {
    if (body.size() > max_bytes) self.fail("the reply is larger than " + mebibytes(max_bytes));
  } while (self.pull(body));
  return body;
}

std::string Response::quote_rest() {
  Impl& self = *_impl;
  std::string body = self.take_buffer();
  self.watch.shorten(QUOTE_PATIENCE_S);
  const auto end = Clock::now() + std::chrono::duration<double>(QUOTE_PATIENCE_S);
  try {
    while (body.size() < QUOTED_BYTES && Clock::now() < end && self.pull(body)) {
    }
  } catch (const Retryable&) {  // what has come is enough
  } catch (const HttpFailure&) {
  }
  return quote(body, self.secrets, detail_limit(self.policy));
}

std::string content_type(const Response& reply) {
  return lower_case(reply.head().content_type);
}

}  // namespace tovren_mapstead::engines::http
