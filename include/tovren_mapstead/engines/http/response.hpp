// The reply to one request, while it arrives.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// A reply whose body is still arriving. Can be moved, but not copied; for one thread at a time.
/// Reading throws Stopped, DeadlineExceeded, Retryable (silence, a body that breaks off),
/// HttpFailure (a line or a body that is too large), and what the stop test throws.
class TOVREN_EXPORT Response {
 public:
  /// Sends `request` and waits for the head of its reply, whatever its status. `policy` must
  /// outlive this object. Throws like reading.
  Response(Transport& transport, Request request, double timeout_s, const RetryPolicy& policy,
           const Secrets& secrets);

  /// Afterwards, `other` can only be destroyed.
  Response(Response&& other) noexcept;
  Response& operator=(Response&&) = delete;
  Response(const Response&) = delete;
  Response& operator=(const Response&) = delete;

  /// Keeps the connection for reuse if nothing has failed, else closes it.
  ~Response();

  /// Returns status, content type and location. Lives as long as this object.
  [[nodiscard]] const Head& head() const noexcept;

  /// Returns what is kept out of the error texts of this reply. Lives as long as this object.
  [[nodiscard]] const Secrets& secrets() const noexcept;

  /// Limits the time for all lines together: when bytes come later than `timeout_s` seconds from
  /// now, `next_line` throws Retryable. 0, NaN or more than the clock can count mean no limit.
  void limit_lines(double timeout_s);

  /// Returns the next line of the body without its end, or nothing at the end of the body. Blocks
  /// until the line has arrived. LF, CRLF and a lone CR end a line, and so does the end of the
  /// body, which removes a UTF-8 character that it cuts. A byte order mark before the first line is
  /// skipped (the event-stream format).
  /// The line is valid until the next read. The JsonReader::PADDING bytes after it are readable.
  std::optional<std::string_view> next_line();

  /// Returns a reader for the JSON of this reply. Lives as long as this object.
  [[nodiscard]] JsonReader& reader();

  /// Returns what is left of the body. Throws HttpFailure if that is more than `max_bytes`.
  std::string read_rest(std::size_t max_bytes);

  /// Returns the start of what is left of the body for an error text: at most `policy.detail_chars`
  /// characters on one line, without secrets. Returns what has come if the body stalls or breaks
  /// off. Throws Stopped, DeadlineExceeded and what the stop test throws.
  std::string quote_rest();

  /// Iterates once over the lines of a reply, in step with `next_line`.
  class Lines {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;

    explicit Lines(Response& reply) : _reply(&reply), _line(reply.next_line()) {}

    const std::string_view& operator*() const { return *_line; }

    Lines& operator++() {
      _line = _reply->next_line();
      return *this;
    }

    void operator++(int) { ++*this; }

    bool operator==(std::default_sentinel_t) const noexcept { return !_line.has_value(); }

   private:
    Response* _reply;
    std::optional<std::string_view> _line;
  };

  /// Begins an iteration over the lines from here on: `for (std::string_view line : reply)`. Throws
  /// like `next_line`.
  Lines begin() { return Lines(*this); }

  /// Returns the end of the iteration.
  static std::default_sentinel_t end() noexcept { return {}; }

 private:
  struct Impl;
  std::unique_ptr<Impl> _impl;
};

/// Returns the media type of the reply with its parameters, in lower case; empty if it has none.
[[nodiscard]] TOVREN_EXPORT std::string content_type(const Response& reply);

/// Reads the whole body of `reply`, at most `policy.max_body_bytes`, as JSON. The value lives as
/// long as the reply. Throws Retryable if the text breaks off, HttpFailure, which quotes the start
/// of the body, if it is not JSON, and what reading throws.
TOVREN_EXPORT JsonValue read_json(Response& reply, const RetryPolicy& policy,
                                  const Secrets& secrets);

}  // namespace tovren_mapstead::engines::http
