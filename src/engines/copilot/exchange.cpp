#include "engines/copilot/exchange.hpp"

#include <algorithm>
#include <chrono>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/send.hpp"

#include "engines/http/time.hpp"

namespace tovren_mapstead::engines::copilot {
namespace {

constexpr const char* TOKEN_URL = "https://api.github.com/copilot_internal/v2/token";

// Both endpoints serve known editors only; the chat endpoint refuses requests without these.
constexpr const char* EDITOR_VERSION = "vscode/1.104.1";
constexpr const char* EDITOR_PLUGIN_VERSION = "copilot-chat/0.31.2";
constexpr const char* USER_AGENT = "GitHubCopilotChat/0.31.2";
constexpr const char* INTEGRATION_ID = "vscode-chat";
constexpr const char* INTENT = "conversation-panel";
constexpr const char* API_VERSION = "2025-04-01";

constexpr std::size_t MAX_REPLY_BYTES = std::size_t{1} << 20U;

// A token so near its end could run out on the way.
constexpr double SAFETY_MARGIN_S = 60.0;

http::Headers editor_headers() {
  return {{"Editor-Version", EDITOR_VERSION},
          {"Editor-Plugin-Version", EDITOR_PLUGIN_VERSION},
          {"User-Agent", USER_AGENT},
          {"X-GitHub-Api-Version", API_VERSION}};
}

[[noreturn]] void refuse(const http::HttpFailure& failure) {
  const std::string status = "HTTP " + std::to_string(failure.status().value_or(0));
  switch (failure.status().value_or(0)) {
    case 401:
      throw CopilotError("GitHub refuses the stored credential (" + status +
                         "): it has been revoked or has run out. Sign in to Copilot in an editor "
                         "again, or set COPILOT_GITHUB_TOKEN to a new OAuth token.");
    case 403:
    case 404:
      throw CopilotError("GitHub gives no Copilot token for the stored credential (" + status +
                         "): personal access tokens are not accepted, and the account needs "
                         "Copilot. Sign in to Copilot in an editor with such an account.");
    default:
      throw CopilotError(std::string("The Copilot token could not be fetched: ") + failure.what());
  }
}

Token token_in(const http::JsonValue& reply, const std::string& credential, double unix_now_s) {
  const auto [text, expires_at, refresh_in] =
      reply.members<3>({"token", "expires_at", "refresh_in"});
  const auto number = [](const http::JsonValue& value) { return value.real(); };
  Token token{.text = text.kind() == http::JsonValue::Kind::string ? text.text() : "",
              .credential = credential,
              .expires_at_s = number(expires_at),
              .renew_at = std::nullopt};
  const bool printable = std::ranges::none_of(
      token.text, [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F; });
  if (token.text.empty() || !printable || !(token.expires_at_s > 0)) {
    throw CopilotError(
        "GitHub's reply to the Copilot token request holds no token or no expiry; try again "
        "later.");
  }
  if (token.expires_at_s <= unix_now_s) {
    throw CopilotError(
        "GitHub's Copilot token has already run out by this machine's clock; set the clock right.");
  }
  // What is not a span of time is as good as absent.
  double span_s = token.expires_at_s - unix_now_s - SAFETY_MARGIN_S;
  if (number(refresh_in) > 0) span_s = std::min(span_s, number(refresh_in));
  token.renew_at = http::after(http::Clock::now(), span_s);
  return token;
}

}  // namespace

bool Token::fresh(double unix_now_s, http::Clock::time_point now) const {
  return unix_now_s < expires_at_s - SAFETY_MARGIN_S && (!renew_at || now < *renew_at);
}

Token exchange(const std::string& credential, const AuthOptions& options, const CallBounds& bounds,
               const http::Secrets& secrets) {
  http::Headers headers = editor_headers();
  headers["Authorization"] = "token " + credential;
  headers["Accept"] = "application/json";
  http::Secrets kept_out = secrets;
  kept_out.push_back(credential);
  const http::RetryPolicy policy{.timeout_s = bounds.timeout_s,
                                 .retry_statuses = {408, 409, 429, 500, 502, 503, 504},
                                 .detail_chars = 0,  // any reply may hold a token, which is no
                                                     // known secret yet
                                 .should_stop = bounds.should_stop,
                                 .deadline = bounds.deadline,
                                 .max_body_bytes = MAX_REPLY_BYTES};
  const auto read = [&](http::Response& reply) {
    try {
      return token_in(http::read_json(reply, policy, kept_out), credential, options.unix_time_s());
    } catch (const http::HttpFailure&) {
      // Its text quotes a reply that may hold a token.
      throw CopilotError(
          "GitHub's reply to the Copilot token request cannot be read; try again later.");
    }
  };
  try {
    return http::get(TOKEN_URL,
                     {.policy = policy,
                      .timeout_s = policy.timeout_s,
                      .headers = headers,
                      .secrets = kept_out,
                      .transport = options.transport.get()},
                     read);
  } catch (const http::HttpFailure& failure) {
    refuse(failure);
  }
}

http::Headers headers_with(const std::string& token) {
  http::Headers headers = editor_headers();
  headers["Authorization"] = "Bearer " + token;
  headers["Copilot-Integration-Id"] = INTEGRATION_ID;
  headers["Openai-Intent"] = INTENT;
  return headers;
}

}  // namespace tovren_mapstead::engines::copilot
