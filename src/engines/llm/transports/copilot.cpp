// One attempt of a chat call to GitHub Copilot: the HTTP transport's request under Copilot's
// headers.
#include "tovren_mapstead/engines/copilot.hpp"

#include <exception>

#include "tovren_mapstead/engines/llm/client.hpp"

#include "engines/llm/client/prompt.hpp"
#include "engines/llm/transports/endpoint.hpp"

namespace tovren_mapstead::engines::llm {

LLMResult LLMClient::_chat_via_copilot(const Prompt& prompt, double timeout_s,
                                       const http::RetryPolicy& policy) const {
  if (!_copilot_auth) {
    throw LLMError("Copilot provider selected but the Copilot adapter is missing.");
  }
  const auto fetch_headers = [&] {
    try {
      return _copilot_auth->chat_headers(
          {.timeout_s = timeout_s, .should_stop = policy.should_stop, .deadline = policy.deadline});
    } catch (const copilot::CopilotError& error) {
      std::throw_with_nested(LLMError(error.what()));
    }
  };
  const http::Headers headers = fetch_headers();
  return _chat_http(chat_url(_config.base_url), headers, prompt, timeout_s, policy);
}

}  // namespace tovren_mapstead::engines::llm
