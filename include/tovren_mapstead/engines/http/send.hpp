// One HTTP exchange: sends a request and reads the reply within the bounds of a policy. Does not
// retry.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tovren_mapstead/engines/http/json_writer.hpp"
#include "tovren_mapstead/engines/http/response.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// The advice for a refused credential (401) if the caller has none that is better.
inline constexpr std::string_view CHECK_API_KEY = "check the API key";

/// What a request needs. References are borrowed for the time of the exchange.
struct SendOptions {
  const RetryPolicy& policy;       ///< Bounds and limits. `send` makes one attempt.
  double timeout_s = 60.0;         ///< Idle timeout in seconds; 0 means no limit.
  JsonObject body{};               ///< Of a POST; a GET has none.
  Headers headers{};               ///< A POST gets a `Content-Type: application/json` as well.
  const Secrets& secrets;          ///< Kept out of every error text.
  Transport* transport = nullptr;  ///< Absent: `default_transport`.
  std::string_view advice_on_401 = CHECK_API_KEY;  ///< For the text of such a failure.
};

namespace detail {

/// Sends a request and returns its reply if the status is a success; throws like `send`.
TOVREN_EXPORT Response send_request(Method method, const std::string& url, SendOptions options);

}  // namespace detail

/// POSTs `options.body` to `url`, once, and returns what `read(Response&)` returns.
/// Throws Retryable (a status of `policy.retry_statuses`, silence, a failed connection),
/// HttpFailure (any other status but success, redirects included; a request that cannot be sent:
/// text that is not UTF-8, a number that is not finite, a header value with a line break), Stopped
/// and DeadlineExceeded (the bounds of `policy`). Exceptions of `read` and of the stop test pass
/// unchanged. Runs on the calling thread. Thread-safe.
template <class Read>
std::invoke_result_t<Read&, Response&> send(const std::string& url, SendOptions options,
                                            Read&& read) {
  Response reply = detail::send_request(Method::post, url, std::move(options));
  return std::invoke(read, reply);
}

/// GETs `url`, once; otherwise like `send`.
template <class Read>
std::invoke_result_t<Read&, Response&> get(const std::string& url, SendOptions options,
                                           Read&& read) {
  Response reply = detail::send_request(Method::get, url, std::move(options));
  return std::invoke(read, reply);
}

}  // namespace tovren_mapstead::engines::http
