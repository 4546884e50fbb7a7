// Whole reply bodies.
#pragma once

#include <string>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"

namespace tovren_mapstead::engines::llm {

/// Returns the result that a chat-completion object holds; its model is `fallback_model` if the
/// object names none. Throws LLMError, free of `secrets`, if `payload` is no such object.
[[nodiscard]] LLMResult _parse_completion(const http::JsonValue& payload,
                                          const std::string& fallback_model,
                                          const http::Secrets& secrets = {});

}  // namespace tovren_mapstead::engines::llm
