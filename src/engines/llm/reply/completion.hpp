// Whole reply bodies. Pure functions of a decoded JSON value.
#pragma once

#include <string>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"

namespace tovren_mapstead::engines::llm {

/// The result that a chat-completion object holds; `fallback_model` where it names no model.
/// Throws LLMError, free of `secrets`, when it is none.
[[nodiscard]] LLMResult _parse_completion(const http::JsonValue& payload,
                                          const std::string& fallback_model,
                                          const http::Secrets& secrets = {});

}  // namespace tovren_mapstead::engines::llm
