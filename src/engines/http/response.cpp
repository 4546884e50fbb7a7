#include "tovren_mapstead/engines/http/response.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "tovren_mapstead/engines/http/utf8.hpp"

#include "engines/http/clock.hpp"
#include "engines/http/process.hpp"
#include "json/json_mend.hpp"
#include "text/characters.hpp"
#include "text/quote.hpp"
#include "text/trim.hpp"

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

// Returns how many bytes at the end of `text` begin a UTF-8 character that needs more bytes.
std::size_t unfinished(std::string_view text) {
  constexpr std::size_t LONGEST = 4;
  for (std::size_t width = 1; width < LONGEST && width <= text.size(); ++width) {
    // Each first byte can be followed by the least or by the greatest continuation byte.
    for (const char next : {'\x80', '\xBF'}) {
      std::array<char, LONGEST> whole{};
      whole.fill(next);
      text.copy(whole.data(), width, text.size() - width);
      if (read_utf8({whole.data(), whole.size()}).width > width) return width;
    }
  }
  return 0;
}

// Finds the next occurrence of a character in a growing buffer. Looks at each byte once, however
// short the lines are and however rare the character.
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

  // Reads more of the body into the buffer; returns false at the end of the body.
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
    buffer.append(JsonReader::PADDING, '\0');
    if (size > 0 && has_passed(lines_end_at)) {
      failed = true;
      throw Retryable("stream exceeded timeout before completing");
    }
    return more;
  }

  // Skips the LF of a CRLF. The CR has ended the line already, so that nobody waits for a sender
  // that stops between the two.
  void skip_line_feed() {
    if (!after_carriage_return || start == size) return;
    after_carriage_return = false;
    if (buffer[start] == '\n') ++start;
  }

  // Returns what has come and has not been handed out.
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

  // Takes the line that ends at `end` from the buffer, with its line end if that has come.
  std::string_view take_line(std::size_t end) {
    check_line(end - start);
    std::string_view line(buffer.data() + start, end - start);
    start = std::min(end + 1, size);
    if (std::exchange(at_body_start, false) && line.starts_with(BYTE_ORDER_MARK)) {
      line.remove_prefix(BYTE_ORDER_MARK.size());
    }
    return line;
  }

  const CallGuard guard;
  const int exceptions_before = std::uncaught_exceptions();
  const RetryPolicy& policy;
  Secrets secrets;
  bool failed = false;
  Watch watch;
  std::unique_ptr<Exchange> exchange;
  JsonReader reader;
  std::string buffer;
  std::optional<Deadline> lines_end_at;
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
  _impl->lines_end_at = time_limit(timeout_s);
}

JsonReader& Response::reader() {
  return _impl->reader;
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

JsonValue EventReader::next() {
  constexpr std::string_view PREFIX = "data:";
  const auto require_utf8 = [](std::string_view line) {
    if (line.empty() || is_utf8(line)) return;
    throw HttpFailure("stream is not valid UTF-8; ask again, without streaming if it stays so");
  };
  while (const std::optional<std::string_view> raw = _reply.next_line()) {
    const std::string_view line = trim(*raw);
    if (!line.starts_with(PREFIX)) {
      require_utf8(*raw);
      continue;
    }
    std::string_view payload = line.substr(PREFIX.size());
    if (payload.starts_with(' ')) payload.remove_prefix(1);  // usual, and cheaper than `trim`
    payload = trim(payload);
    if (payload == "[DONE]") break;
    const JsonValue event = _json.parse_padded(payload);
    if (event.kind() == JsonValue::Kind::object) return event;
    if (!event.present()) require_utf8(*raw);
  }
  return {};
}

}  // namespace tovren_mapstead::engines::http
