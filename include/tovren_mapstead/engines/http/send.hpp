// One HTTP exchange: request out, reply in, within the bounds of a policy. Does not retry.
#pragma once

#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include <nlohmann/json_fwd.hpp>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// A reply whose body is still arriving. Moves, does not copy; used by one thread at a time.
/// Reading throws Stopped, DeadlineExceeded, Retryable (silence, a cut body) and HttpFailure (a
/// line or a body too large), and what the stop test throws.
class TOVREN_EXPORT Response {
 public:
  /// Sends `request` and waits for the head of its reply, whatever its status. `policy` is borrowed
  /// for the life of this object. Throws like reading.
  Response(Transport& transport, Request request, double timeout_s, const RetryPolicy& policy,
           const Secrets& secrets);

  /// What was moved from can only be destroyed.
  Response(Response&&) noexcept;
  Response& operator=(Response&&) = delete;
  Response(const Response&) = delete;
  Response& operator=(const Response&) = delete;

  /// Gives the connection back if the reply was left in good order, else closes it.
  ~Response();

  /// Status, content type and location. Lives as long as this object.
  [[nodiscard]] const Head& head() const noexcept;

  /// What is kept out of the error texts of this reply. Lives as long as this object.
  [[nodiscard]] const Secrets& secrets() const noexcept;

  /// Bounds the reading by lines as a whole: once `timeout_s` seconds from now have passed,
  /// `next_line` throws Retryable as soon as bytes come, whether they end a line or not. 0, NaN or
  /// more than the clock can count: no limit.
  void limit_lines(double timeout_s);

  /// The next line of the body without its end, or nothing at the end of the body. Blocks until the
  /// line has arrived. LF, CRLF and a lone CR end a line, and so does the end of the body, which
  /// takes the start of a UTF-8 character that it cuts off with it; a byte order mark before the
  /// first line is passed over (the event-stream format).
  /// The line is valid until the next read. So are PADDING bytes after it, whatever they are, for a
  /// parser that reads in blocks.
  std::optional<std::string_view> next_line();

  /// Bytes that are readable after a line.
  static constexpr std::size_t PADDING = 64;

  /// A reader for what comes, in memory that later replies use again.
  [[nodiscard]] JsonReader& reader();

  /// What is left of the body, up to `max_bytes`; more than that is an HttpFailure.
  std::string read_rest(std::size_t max_bytes);

  /// The start of what is left of the body, fit to be quoted in an error: at most
  /// `policy.detail_chars` characters on one line, without secrets. Gives up early on a body that
  /// stalls or breaks off, and returns what has come. Throws Stopped, DeadlineExceeded and what the
  /// stop test throws.
  std::string quote_rest();

  /// Goes once over the lines of a reply, in step with `next_line`.
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

  /// The lines from here on: `for (std::string_view line : reply)`. Throws like `next_line`.
  Lines begin() { return Lines(*this); }

  /// The end of the body.
  static std::default_sentinel_t end() noexcept { return {}; }

 private:
  struct Impl;
  std::unique_ptr<Impl> _impl;
};

/// The media type of the reply with its parameters, in lower case; empty when it names none.
[[nodiscard]] TOVREN_EXPORT std::string content_type(const Response& reply);

/// What a user can do about a refused credential (401) if the caller knows nothing better.
inline constexpr std::string_view CHECK_API_KEY = "check the API key";

/// What a POST needs. Everything is borrowed for the time of the exchange.
struct SendOptions {
  const RetryPolicy& policy;             ///< Bounds and limits; its attempts are not this level's.
  const double timeout_s = 60.0;         ///< Longest silence, in seconds; 0: any.
  const nlohmann::ordered_json& body;    ///< Sent as JSON, members in their order.
  const Headers& headers;                ///< Sent beside `Content-Type: application/json`.
  const Secrets& secrets;                ///< Kept out of every error text.
  Transport* const transport = nullptr;  ///< Absent: `default_transport`.
  const std::string_view advice_on_401 = CHECK_API_KEY;  ///< Told in the text of such a failure.
};

/// What a GET needs: the same without a body.
struct GetOptions {
  const RetryPolicy& policy;             ///< As for SendOptions.
  const double timeout_s = 60.0;         ///< Longest silence, in seconds; 0: any.
  const Headers& headers;                ///< Sent as they are.
  const Secrets& secrets;                ///< Kept out of every error text.
  Transport* const transport = nullptr;  ///< Absent: `default_transport`.
};

namespace detail {

/// Send a request and return its reply if the status is a success; throw like `send`.
TOVREN_EXPORT Response post(const std::string& url, const SendOptions& options);
TOVREN_EXPORT Response get(const std::string& url, const GetOptions& options);

}  // namespace detail

/// POSTs `options.body` to `url`, once, and returns what `read(Response&)` makes of the reply.
/// Throws Retryable (a status of `policy.retry_statuses`, silence, a connection that fails),
/// HttpFailure (any other status but success, redirects too; a request that cannot be sent as it
/// is: text that is not UTF-8, a number that is not finite, a header value with a line break),
/// Stopped and DeadlineExceeded (`policy`); what `read` and the stop test throw passes unchanged.
/// Runs on the calling thread; safe from any number of threads.
template <class Read>
std::invoke_result_t<Read&, Response&> send(const std::string& url, const SendOptions& options,
                                            Read&& read) {
  Response reply = detail::post(url, options);
  return std::invoke(read, reply);
}

/// GETs `url`, once; in everything else like `send`.
template <class Read>
std::invoke_result_t<Read&, Response&> get(const std::string& url, const GetOptions& options,
                                           Read&& read) {
  Response reply = detail::get(url, options);
  return std::invoke(read, reply);
}

}  // namespace tovren_mapstead::engines::http
