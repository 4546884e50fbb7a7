// Whole reply bodies. Pure functions of a decoded JSON value.
#pragma once

#include <cstdint>
#include <string>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"

namespace tovren_mapstead::engines::llm {

/// `value` as a whole number: a number without its fraction, true as 1, a string that spells an
/// integer. `fallback` for everything else, and for what 64 bits cannot hold: a bad token count
/// never costs an answer.
[[nodiscard]] std::int64_t _as_int(const http::JsonValue& value, std::int64_t fallback = 0);

/// The result that a chat-completion object holds; `fallback_model` where it names no model.
/// Throws LLMError, free of `secrets`, when it is none.
[[nodiscard]] LLMResult _parse_completion(const http::JsonValue& payload,
                                          const std::string& fallback_model,
                                          const http::Secrets& secrets = {});

}  // namespace tovren_mapstead::engines::llm
