// One attempt of a chat call to GitHub Copilot.
#include "tovren_mapstead/engines/llm/client.hpp"

#include "engines/llm/client/prompt.hpp"

namespace tovren_mapstead::engines::llm {

LLMResult LLMClient::_chat_via_copilot(const Prompt&, double, const http::RetryPolicy&) const {
  throw LLMError("Copilot provider selected but the Copilot adapter is missing.");
}

}  // namespace tovren_mapstead::engines::llm
