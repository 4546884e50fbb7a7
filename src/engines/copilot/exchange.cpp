#include "engines/copilot/exchange.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string_view>
#include <utility>
#include <variant>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/send.hpp"

#include "engines/http/clock.hpp"
#include "text/characters.hpp"

namespace tovren_mapstead::engines::copilot {
namespace {

constexpr const char* TOKEN_URL = "https://api.github.com/copilot_internal/v2/token";

// Both endpoints serve known editors only. The chat endpoint rejects requests without these.
constexpr const char* EDITOR_VERSION = "vscode/1.104.1";
constexpr const char* EDITOR_PLUGIN_VERSION = "copilot-chat/0.31.2";
constexpr const char* USER_AGENT = "GitHubCopilotChat/0.31.2";
constexpr const char* INTEGRATION_ID = "vscode-chat";
constexpr const char* INTENT = "conversation-panel";
constexpr const char* API_VERSION = "2025-04-01";

constexpr std::size_t MAX_REPLY_BYTES = std::size_t{1} << 20U;

// How much of an error reply is searched for a rate limit. GitHub's text begins with it.
constexpr int SEARCHED_CHARS = 2000;

// Marks the text of a transient failure, to distinguish it from those of the chat endpoint.
std::string at_endpoint(const std::string& text) {
  return "GitHub's Copilot token endpoint: " + text;
}

// A token this near its end could expire before it arrives.
constexpr double SAFETY_MARGIN_S = 60.0;

// A failed renewal costs a call up to 5 s. A token is due about four minutes before its end, which
// leaves time for a few attempts.
constexpr double RENEWAL_PAUSE_S = 60.0;

bool printable(std::string_view text) {
  return std::ranges::none_of(
      text, [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F; });
}

http::Headers editor_headers() {
  return {{"Editor-Version", EDITOR_VERSION},
          {"Editor-Plugin-Version", EDITOR_PLUGIN_VERSION},
          {"User-Agent", USER_AGENT},
          {"X-GitHub-Api-Version", API_VERSION}};
}

// Why GitHub refuses a credential, for its owner. Another credential may be accepted.
struct Refusal {
  std::string reason;
};

constexpr http::StatusSet TRANSIENT{408, 409, 429, 500, 502, 503, 504};

// GitHub reports a rate limit with 429 or 403. Only the text of the reply distinguishes the latter
// from a refusal (GitHub's REST API documentation, "Rate limits").
bool is_rate_limit(int status, std::string_view body) {
  return status == 429 ||
         (status == 403 && http::lower_case(body).find("rate limit") != std::string::npos);
}

// Returns a refusal of the credential. Throws CopilotError or http::Retryable for other failures.
// No text quotes the reply, which may hold a token that is not yet redacted.
Refusal refusal_in(const http::HttpFailure& failure) {
  const std::string unfetched = "The Copilot token could not be fetched: ";
  if (!failure.status()) throw CopilotError(unfetched + failure.what());
  const int status = *failure.status();
  const std::string answer = "HTTP " + std::to_string(status);
  if (is_rate_limit(status, failure.detail())) {
    throw http::Retryable(
        at_endpoint(answer + " (GitHub limits the rate of requests; send fewer, or later)"),
        status);
  }
  if (TRANSIENT.contains(status)) {
    throw http::Retryable(at_endpoint(answer + " (GitHub failed; try again later)"), status);
  }
  switch (status) {
    case 401:
      return {"GitHub refuses the stored credential (" + answer +
              "): it was revoked or has expired. Sign in to Copilot in an editor again, or "
              "set COPILOT_GITHUB_TOKEN to a new OAuth token."};
    case 403:
    case 404:
      return {"GitHub gives no Copilot token for the stored credential (" + answer +
              "): personal access tokens are not accepted, and the account needs Copilot. Sign in "
              "to Copilot in an editor with such an account."};
    default:
      throw CopilotError(unfetched + "GitHub's endpoint answered " + answer +
                         (status / 100 == 3 ? " (a redirect, which is not followed)" : "") +
                         "; check that no proxy answers in its place.");
  }
}

Token token_in(const http::JsonValue& reply, double unix_now_s) {
  const auto [text, expires_at, refresh_in] =
      reply.members<3>({"token", "expires_at", "refresh_in"});
  Token token;
  if (text.kind() == http::JsonValue::Kind::string) token.text = text.text();
  token.expires_at_s = expires_at.real();
  if (token.text.empty() || !printable(token.text) || !(token.expires_at_s > 0)) {
    throw CopilotError(
        "GitHub's reply to the Copilot token request lacks a token or its expiry; try again "
        "later.");
  }
  if (token.expires_at_s <= unix_now_s) {
    throw CopilotError(
        "GitHub's Copilot token has already expired by this machine's clock; correct the clock.");
  }
  const auto now = http::Clock::now();
  token.valid_until = http::after(now, token.expires_at_s - unix_now_s - SAFETY_MARGIN_S);
  // Any other value counts as absent.
  if (refresh_in.real() > 0) token.renew_at = http::after(now, refresh_in.real());
  return token;
}

std::variant<Token, Refusal> try_credential(const std::string& credential,
                                            const AuthOptions& options, const CallBounds& bounds,
                                            const http::Secrets& secrets) {
  // The engine would not send it, and the credentials after it would not be tried.
  if (!printable(credential)) {
    return Refusal{"The stored GitHub credential holds a blank or a control character; renew it."};
  }
  http::Headers headers = editor_headers();
  headers["Authorization"] = "token " + credential;
  headers["Accept"] = "application/json";
  const http::RetryPolicy policy{.timeout_s = bounds.timeout_s,
                                 .detail_chars = SEARCHED_CHARS,
                                 .should_stop = bounds.should_stop,
                                 .deadline = bounds.deadline,
                                 .max_body_bytes = MAX_REPLY_BYTES};
  const auto read = [&](http::Response& reply) {
    try {
      return token_in(http::read_json(reply, policy, secrets), options.unix_time_s());
    } catch (const http::HttpFailure&) {
      // The text of HttpFailure quotes the reply, which may hold a token.
      throw CopilotError(
          "GitHub's reply to the Copilot token request cannot be read; try again later.");
    }
  };
  try {
    return http::get(TOKEN_URL,
                     {.policy = policy,
                      .timeout_s = policy.timeout_s,
                      .headers = std::move(headers),
                      .secrets = secrets,
                      .transport = options.transport.get()},
                     read);
  } catch (const http::HttpFailure& failure) {
    return refusal_in(failure);
  } catch (const http::TimedOut& failure) {
    throw http::TimedOut(at_endpoint(failure.what()), failure.status());
  } catch (const http::Retryable& failure) {
    throw http::Retryable(at_endpoint(failure.what()), failure.status());
  }
}

}  // namespace

bool Token::belongs_to(const Credentials& credentials) const {
  const auto first = std::ranges::find_if(credentials, [&](const std::string& candidate) {
    return std::ranges::find(refused, candidate) == refused.end();
  });
  return first != credentials.end() && *first == credential;
}

bool Token::valid(double unix_now_s, http::Clock::time_point now) const {
  return unix_now_s < expires_at_s - SAFETY_MARGIN_S && (!valid_until || now < *valid_until);
}

bool Token::due(http::Clock::time_point now) const {
  return renew_at && now >= *renew_at;
}

void Token::postpone_renewal(double unix_now_s, http::Clock::time_point now) {
  const double left_s = expires_at_s - SAFETY_MARGIN_S - unix_now_s;
  renew_at = http::after(now, std::min(RENEWAL_PAUSE_S, left_s / 2));
}

Token fetch_token(const Credentials& credentials, const AuthOptions& options,
                  const CallBounds& bounds, const http::Secrets& secrets) {
  http::Secrets redacted = secrets;
  redacted.insert(redacted.end(), credentials.begin(), credentials.end());
  std::string reason;
  for (auto candidate = credentials.begin(); candidate != credentials.end(); ++candidate) {
    auto reply = try_credential(*candidate, options, bounds, redacted);
    if (auto* const token = std::get_if<Token>(&reply)) {
      token->credential = *candidate;
      token->refused.assign(credentials.begin(), candidate);
      return std::move(*token);
    }
    if (reason.empty()) reason = std::get<Refusal>(reply).reason;
  }
  if (credentials.size() > 1) {
    reason += " GitHub refused all " + std::to_string(credentials.size()) +
              " credentials that were found; this is the reason for the first.";
  }
  throw CopilotError(reason);
}

http::Headers headers_with(const std::string& token) {
  http::Headers headers = editor_headers();
  headers["Authorization"] = "Bearer " + token;
  headers["Copilot-Integration-Id"] = INTEGRATION_ID;
  headers["Openai-Intent"] = INTENT;
  return headers;
}

}  // namespace tovren_mapstead::engines::copilot
