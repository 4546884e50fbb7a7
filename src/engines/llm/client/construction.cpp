// Building a client and telling whether it can be used.
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/llm/client.hpp"

#include "engines/llm/client/literal.hpp"
#include "engines/llm/tunables.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

constexpr std::string_view COPILOT = "copilot";
constexpr const char* DEFAULT_COPILOT_MODEL = "claude-opus-4.8";
constexpr const char* API_KEY_VARIABLE = "TOVREN_LLM_API_KEY";

http::Secrets secrets_in(const LLMConfig& config) {
  return config.api_key && !config.api_key->empty() ? http::Secrets{*config.api_key}
                                                    : http::Secrets{};
}

LLMConfig checked(LLMConfig config) {
  const std::string_view url = config.base_url;
  if (!url.empty() && !url.starts_with("http://") && !url.starts_with("https://")) {
    throw std::invalid_argument("base_url must start with http:// or https://, got: " +
                                as_literal(http::redact(url, secrets_in(config))));
  }
  return config;
}

int attempts_of(const LLMConfig& config) {
  constexpr int MOST = std::numeric_limits<int>::max();
  return config.max_retries == MOST ? MOST : std::max(1, config.max_retries + 1);
}

}  // namespace

LLMClient::LLMClient(LLMConfig config, const ClientOptions& options)
    : _config(checked(std::move(config))),
      _transport(options.transport),
      _secrets(secrets_in(_config)),
      _policy{.attempts = attempts_of(_config),
              .backoff_s = BACKOFF_S,
              .timeout_s = _config.timeout_s,
              .retry_statuses = RETRYABLE_STATUS,
              .detail_chars = DETAIL_CHARS,
              .wait = options.wait ? options.wait : http::wait_unless_stopped},
      _copilot_auth(_config.provider == COPILOT
                        ? std::make_shared<copilot::CopilotAuth>(
                              copilot::AuthOptions{.transport = options.transport})
                        : nullptr) {}

bool LLMClient::is_configured() const {
  if (_config.provider == COPILOT) {
    return !_config.model.empty() && _copilot_auth && _copilot_auth->is_available();
  }
  return !_config.base_url.empty() && !_config.model.empty() && _config.api_key &&
         !_config.api_key->empty();
}

LLMClient build_llm_client_from_config(const Config& config) {
  const GenerationConfig& gen = config.generation;
  const bool for_copilot = gen.provider == COPILOT;
  std::optional<std::string> key;
  if (!for_copilot) {
    const char* const value = std::getenv(API_KEY_VARIABLE);  // NOLINT(concurrency-mt-unsafe)
    if (value != nullptr && *value != '\0') key = value;
  }
  return LLMClient({.provider = gen.provider,
                    .base_url = for_copilot ? copilot::COPILOT_BASE : gen.base_url,
                    .model = for_copilot && gen.model.empty() ? DEFAULT_COPILOT_MODEL : gen.model,
                    .api_key = key,
                    .timeout_s = gen.timeout_s,
                    .max_retries = gen.max_retries,
                    .temperature = gen.temperature,
                    .max_tokens = gen.max_output_tokens,
                    .stream = gen.stream});
}

}  // namespace tovren_mapstead::engines::llm
