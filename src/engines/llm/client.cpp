#include "tovren_mapstead/engines/llm/client.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "engines/http/clock.hpp"
#include "engines/http/process.hpp"
#include "engines/llm/core.hpp"
#include "engines/llm/tunables.hpp"
#include "openai/loader.hpp"
#include "text/literal.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

constexpr std::string_view COPILOT = "copilot";
constexpr const char* DEFAULT_COPILOT_MODEL = "claude-opus-4.8";
constexpr const char* API_KEY_VARIABLE = "TOVREN_LLM_API_KEY";

http::Secrets secrets_in(const LLMConfig& config) {
  const std::string key = config.api_key().value_or("");
  return key.empty() ? http::Secrets{} : http::Secrets{key};
}

LLMConfig checked(LLMConfig config) {
  const std::string_view url = config.base_url();
  if (!url.empty() && !url.starts_with("http://") && !url.starts_with("https://")) {
    throw std::invalid_argument("base_url must start with http:// or https://, got: " +
                                http::as_literal(http::redact(url, secrets_in(config))));
  }
  return config;
}

int attempts_of(const LLMConfig& config) {
  constexpr int MOST = std::numeric_limits<int>::max();
  return config.max_retries() == MOST ? MOST : std::max(1, config.max_retries() + 1);
}

}  // namespace

std::optional<http::Deadline> CallDeadline::moment() const noexcept {
  if (const auto* const moment = std::get_if<http::Deadline>(&_end)) return *moment;
  const auto* const period = std::get_if<std::chrono::duration<double>>(&_end);
  return period == nullptr ? std::nullopt : http::after(http::Clock::now(), period->count());
}

LLMClient::Core::Core(LLMConfig config, const ClientOptions& options)
    : _config(checked(std::move(config))),
      _transport(options.transport),
      _secrets(secrets_in(_config)),
      _policy{.attempts = attempts_of(_config),
              .backoff_s = BACKOFF_S,
              .timeout_s = _config.timeout_s(),
              .retry_statuses = RETRYABLE_STATUS,
              .detail_chars = DETAIL_CHARS,
              .wait = options.wait ? options.wait : http::wait_unless_stopped} {
  if (_config.provider() == COPILOT) {
    _copilot_auth = std::make_shared<copilot::CopilotAuth>(
        copilot::AuthOptions{.transport = options.transport});
  }
}

LLMClient::LLMClient(LLMConfig config, const ClientOptions& options)
    : _core(std::make_shared<const Core>(std::move(config), options)) {}

LLMClient::LLMClient(LLMConfig::Fields fields, const ClientOptions& options)
    : LLMClient(LLMConfig(std::move(fields)), options) {}

const LLMConfig& LLMClient::config() const noexcept {
  return _core->_config;
}

const std::string& LLMClient::model() const noexcept {
  return config().model();
}

bool LLMClient::is_configured() const {
  if (config().provider() == COPILOT) {
    return !model().empty() && _core->_copilot_auth && _core->_copilot_auth->is_available();
  }
  return !config().base_url().empty() && !model().empty() && !_core->_secrets.empty();
}

std::string LLMClient::missing_settings() const {
  std::string missing;
  const auto add = [&](bool lacks, std::string_view text) {
    if (lacks) missing.append(missing.empty() ? "" : "; ").append(text);
  };
  const bool copilot = config().provider() == COPILOT;
  add(!copilot && config().base_url().empty(), "generation.base_url is empty");
  add(model().empty(), "generation.model is empty");
  add(!copilot && _core->_secrets.empty(),
      "there is no API key: set the environment variable TOVREN_LLM_API_KEY, or LLMConfig's "
      "api_key");
  add(copilot && !_core->_copilot_auth->is_available(), copilot::NO_CREDENTIAL);
  return missing;
}

LLMResult LLMClient::chat(const Messages& messages, const ChatOptions& options) const {
  if (!is_configured()) {
    throw LLMError(
        "LLM is not configured (need generation.base_url, generation.model, and the "
        "TOVREN_LLM_API_KEY environment variable).");
  }
  if (!std::isfinite(config().timeout_s()) || config().timeout_s() < 0) {
    throw LLMError(
        "LLM timeout_s is negative or not finite; set it to seconds, or to 0 for no limit.");
  }
  const Core& core = *_core;
  const Prompt prompt{.messages = messages,
                      .temperature = options.temperature.value_or(config().temperature()),
                      .max_tokens = options.max_tokens.value_or(config().max_tokens()),
                      .response_json = options.response_json};
  http::RetryPolicy policy = core._policy;
  policy.deadline = options.deadline.moment();
  if (options.should_stop) policy.should_stop = options.should_stop;
  const auto attempt = [&](double timeout_s) {
    if (config().provider() == COPILOT) return core._chat_via_copilot(prompt, timeout_s, policy);
    if (_openai_available()) return core._chat_via_sdk(prompt, timeout_s);
    return core._chat_via_urllib(prompt, timeout_s, policy);
  };
  // The outcomes of the retry loop become the client's errors here and nowhere else.
  try {
    const http::CallGuard guard;
    return http::retry(policy, attempt, {.label = "LLM call", .secrets = core._secrets});
  } catch (const http::Stopped& stopped) {
    std::throw_with_nested(LLMStopped(stopped.what()));
  } catch (const http::DeadlineExceeded& late) {
    std::throw_with_nested(LLMTimeout(late.what()));
  } catch (const http::Exhausted& exhausted) {
    std::throw_with_nested(LLMError(exhausted.what()));
  }
}

bool _openai_available() {
  const http::ForkGuard guard;  // a child must not find the one search begun and never ended
  return openai::find_library().has_value();
}

LLMClient build_llm_client_from_config(const Config& config) {
  const GenerationConfig& gen = config.generation;
  LLMConfig::Fields fields{.provider = gen.provider,
                           .base_url = gen.base_url,
                           .model = gen.model,
                           .timeout_s = gen.timeout_s,
                           .max_retries = gen.max_retries,
                           .temperature = gen.temperature,
                           .max_tokens = gen.max_output_tokens,
                           .stream = gen.stream};
  if (gen.provider == COPILOT) {
    fields.base_url = copilot::COPILOT_BASE;
    if (fields.model.empty()) fields.model = DEFAULT_COPILOT_MODEL;
  } else {
    const char* const key = std::getenv(API_KEY_VARIABLE);  // NOLINT(concurrency-mt-unsafe)
    if (key != nullptr && *key != '\0') fields.api_key = key;
  }
  return LLMClient(std::move(fields));
}

}  // namespace tovren_mapstead::engines::llm
