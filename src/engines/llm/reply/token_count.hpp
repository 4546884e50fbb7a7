// Token counts, from whatever a provider or a client library reports.
#pragma once

#include <cstdint>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::engines::llm {

/// Converts `value` to an integer: drops the fraction of a number, takes true as 1, and reads a
/// string that spells an integer. Returns `fallback` for anything else, and for what 64 bits cannot
/// hold: a bad token count never costs an answer.
[[nodiscard]] std::int64_t _as_int(const openai::Scalar& value, std::int64_t fallback = 0);
[[nodiscard]] std::int64_t _as_int(const http::JsonValue& value, std::int64_t fallback = 0);

}  // namespace tovren_mapstead::engines::llm
