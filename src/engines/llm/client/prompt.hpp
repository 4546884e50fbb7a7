// What one chat call asks, its overrides settled.
#pragma once

#include "tovren_mapstead/engines/llm/client.hpp"

namespace tovren_mapstead::engines::llm {

/// Borrows the caller's messages for the time of the call.
struct LLMClient::Prompt {
  const Messages& messages;
  const double temperature;
  const int max_tokens;
  const bool response_json;

  [[nodiscard]] Prompt without_json_mode() const {
    return {.messages = messages,
            .temperature = temperature,
            .max_tokens = max_tokens,
            .response_json = false};
  }
};

}  // namespace tovren_mapstead::engines::llm
