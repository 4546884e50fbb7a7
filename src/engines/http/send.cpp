#include "tovren_mapstead/engines/http/send.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include "engines/http/request.hpp"
#include "text/characters.hpp"
#include "text/quote.hpp"

namespace tovren_mapstead::engines::http {
namespace {

constexpr std::string_view USER_AGENT = "tovren-mapstead/" TOVREN_MAPSTEAD_VERSION;

// What the user can do about a status. The caller knows what to do about 401.
struct Advice {
  int status;
  std::string_view text;
};

constexpr std::array<Advice, 10> ADVICE{{
    {.status = 400, .text = "the server rejected the request; see its message"},
    {.status = 402, .text = "check the account's credit"},
    {.status = 403, .text = "the credential does not permit this; check it and the account"},
    {.status = 404, .text = "check the URL and the model name"},
    {.status = 405, .text = "check the URL"},
    {.status = 407, .text = "the proxy wants a user name and password; check the proxy variables"},
    {.status = 413, .text = "the request is too large; send less"},
    {.status = 422, .text = "the server rejected the request; see its message"},
    {.status = 429,
     .text = "the server limits the rate or the account; send requests less often, or later"},
    {.status = 501, .text = "the server does not offer this"},
}};

// "HTTP 401 (check the API key)"
std::string in_words(int status, std::string_view detail, std::string_view advice_on_401) {
  const std::string text = "HTTP " + std::to_string(status);
  if (status == 401) return text + " (" + std::string(advice_on_401) + ")";
  // OpenAI's code for an account that has used up its credit. Waiting does not help.
  if (status == 429 && detail.find("insufficient_quota") != std::string_view::npos) {
    return text + " (the account's quota is used up; check its plan and billing)";
  }
  const auto* const advice = std::ranges::find(ADVICE, status, &Advice::status);
  if (advice != ADVICE.end()) return text + " (" + std::string(advice->text) + ")";
  return status / 100 == 5 ? text + " (the server failed; try again later)" : text;
}

void add_unless_given(Headers& headers, const std::string& name, std::string_view value) {
  const bool given = std::ranges::any_of(
      headers, [&](const auto& header) { return equal_in_any_case(header.first, name); });
  if (!given) headers.emplace(name, value);
}

std::string redirect(const Head& head, const RetryPolicy& policy, const Secrets& secrets) {
  const std::size_t location_chars = std::min(std::size_t{200}, quoted_chars(policy.detail_chars));
  // Without user information and query, which can hold credentials.
  std::string_view location = head.location;
  location = location.substr(0, location.find_first_of("?#"));
  const bool bare = location.find('@') == std::string_view::npos;
  const std::string to = bare ? quote(location, secrets, location_chars) : "";
  return "request failed with HTTP " + std::to_string(head.status) + " (a redirect" +
         (to.empty() ? "" : " to " + to) + ", which is not followed; use the final URL)";
}

// A call that is stopped while the reason comes still tells the status.
std::string quote_rest(Response& reply) {
  try {
    return reply.quote_rest();
  } catch (const Stopped& stop) {
    throw Stopped(stop.what(), reply.head().status);
  } catch (const DeadlineExceeded& end) {
    throw DeadlineExceeded(end.what(), reply.head().status);
  }
}

}  // namespace

// Every request goes out here, and every status is judged here.
Response detail::send_request(Method method, const std::string& url, SendOptions options) {
  const auto& [policy, timeout_s, body, headers, secrets, transport, advice_on_401] = options;
  Request request{.method = method, .url = url, .headers = std::move(options.headers)};
  if (method == Method::post) {
    if (!body.fault().empty()) {  // it names a place in the body, which may hold a secret
      throw HttpFailure(redact("request cannot be written as JSON: " + body.fault(), secrets));
    }
    request.body = std::move(options.body).text();
    add_unless_given(request.headers, "Content-Type", "application/json");
  }
  require_safe(request.url, request.headers);
  add_unless_given(request.headers, "User-Agent", USER_AGENT);
  Response reply(transport != nullptr ? *transport : default_transport(), std::move(request),
                 timeout_s, policy, secrets);
  const int status = reply.head().status;
  if (status / 100 == 2) return reply;
  const std::string detail = quote_rest(reply);
  const std::string words = in_words(status, detail, advice_on_401);
  if (policy.retry_statuses.contains(status)) {
    const std::string text = "the server answered " + words;
    throw Retryable(redact(detail.empty() ? text : text + ": " + detail, secrets), status);
  }
  const std::string text =
      status / 100 == 3 ? redirect(reply.head(), policy, secrets) : "request failed with " + words;
  throw HttpFailure(redact(text, secrets), status, detail);
}

}  // namespace tovren_mapstead::engines::http
