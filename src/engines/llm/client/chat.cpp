// One chat call: its settings, its attempts, and its errors in the client's own types.
#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/llm/client.hpp"

#include "engines/http/process.hpp"
#include "engines/llm/client/prompt.hpp"

namespace tovren_mapstead::engines::llm {

LLMResult LLMClient::chat(const Messages& messages, const ChatOptions& options) const {
  if (!is_configured()) {
    throw LLMError(
        "LLM is not configured (need generation.base_url, generation.model, and the "
        "TOVREN_LLM_API_KEY environment variable).");
  }
  const Prompt prompt{.messages = messages,
                      .temperature = options.temperature.value_or(_config.temperature),
                      .max_tokens = options.max_tokens.value_or(_config.max_tokens),
                      .response_json = options.response_json};
  const http::RetryPolicy policy =
      _policy.with({.should_stop = options.should_stop ? options.should_stop : _policy.should_stop,
                    .deadline = options.deadline});
  const auto attempt = [&](double timeout_s) {
    if (_config.provider == "copilot") return _chat_via_copilot(prompt, timeout_s, policy);
    if (_openai_available()) return _chat_via_sdk(prompt, timeout_s);
    return _chat_via_urllib(prompt, timeout_s, policy);
  };
  // The engine's errors become the client's here and nowhere else.
  try {
    const http::UnderWay under_way;
    return http::retry(policy, attempt, {.label = "LLM call", .secrets = _secrets});
  } catch (const http::Stopped& stopped) {
    throw LLMStopped(stopped.what());
  } catch (const http::DeadlineExceeded& late) {
    throw LLMTimeout(late.what());
  } catch (const http::Exhausted& exhausted) {
    throw LLMError(exhausted.what());
  }
}

}  // namespace tovren_mapstead::engines::llm
