// Token counts, from whatever a provider or a client library gives for one.
#pragma once

#include <cstdint>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::engines::llm {

/// `value` as a whole number: a number without its fraction, true as 1, a string that spells an
/// integer. `fallback` for everything else, and for what 64 bits cannot hold: a bad token count
/// never costs an answer.
[[nodiscard]] std::int64_t _as_int(const http::JsonValue& value, std::int64_t fallback = 0);
[[nodiscard]] std::int64_t _as_int(const openai::Scalar& value, std::int64_t fallback = 0);

}  // namespace tovren_mapstead::engines::llm
