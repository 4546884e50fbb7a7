// One attempt of a chat call to GitHub Copilot: the HTTP transport's request with the adapter's
// headers.
#include "tovren_mapstead/engines/copilot.hpp"

#include <exception>

#include "engines/llm/core.hpp"
#include "openai/protocol.hpp"

namespace tovren_mapstead::engines::llm {

LLMResult LLMClient::Core::_chat_via_copilot(const Prompt& prompt, double timeout_s,
                                             const http::RetryPolicy& policy) const {
  if (!_copilot_auth) {
    throw LLMError("Copilot provider selected but the Copilot adapter is missing.");
  }
  HttpTarget target{.url = openai::chat_url(_config.base_url()),
                    .headers = {},
                    .advice_on_401 = copilot::TOKEN_REFUSED};
  try {
    target.headers = _copilot_auth->chat_headers(
        {.timeout_s = timeout_s, .should_stop = policy.should_stop, .deadline = policy.deadline});
  } catch (const copilot::CopilotError& error) {
    std::throw_with_nested(LLMError(error.what()));
  }
  target.secrets = _copilot_auth->secrets();
  target.on_401 = [&] { _copilot_auth->drop_token(target.headers); };
  return _chat_http(target, prompt, timeout_s, policy);
}

}  // namespace tovren_mapstead::engines::llm
