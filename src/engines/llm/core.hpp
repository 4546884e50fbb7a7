// What the copies of a client share, and one attempt of a chat call by each transport.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/send.hpp"
#include "tovren_mapstead/engines/llm/client.hpp"

#include "engines/llm/request.hpp"

namespace tovren_mapstead::engines::llm {

/// The URL and the credentials of an HTTP request.
struct HttpTarget {
  std::string url;
  http::Headers headers;
  http::Secrets secrets{};  ///< Besides those of the client and of `headers`.
  std::string_view advice_on_401 = http::CHECK_API_KEY;
  std::function<void()> on_401{};  ///< Called when the endpoint refuses the credential.
};

/// Immutable but for the token that the Copilot adapter keeps. The attempts are in `transports/`.
/// Each throws http::Retryable if another attempt may succeed, http::Stopped,
/// http::DeadlineExceeded, and LLMError for any other failure.
struct LLMClient::Core {
  Core(LLMConfig config, const ClientOptions& options);

  /// Sends one request over plain HTTP to the configured endpoint.
  LLMResult _chat_via_urllib(const Prompt& prompt, double timeout_s,
                             const http::RetryPolicy& policy) const;

  /// Sends one request to GitHub Copilot, with a token of the adapter.
  LLMResult _chat_via_copilot(const Prompt& prompt, double timeout_s,
                              const http::RetryPolicy& policy) const;

  /// Makes one request through the OpenAI client library. `stream`: absent means as configured.
  LLMResult _chat_via_sdk(const Prompt& prompt, double timeout_s,
                          std::optional<bool> stream = std::nullopt) const;

  /// Sends one request over HTTP, and again without the features that the provider rejects.
  LLMResult _chat_http(const HttpTarget& target, const Prompt& prompt, double timeout_s,
                       const http::RetryPolicy& policy,
                       std::optional<bool> stream = std::nullopt) const;

  LLMConfig _config;
  std::shared_ptr<http::Transport> _transport;
  http::Secrets _secrets;
  http::RetryPolicy _policy;
  std::shared_ptr<copilot::CopilotAuth> _copilot_auth;  // of a Copilot client
};

}  // namespace tovren_mapstead::engines::llm
