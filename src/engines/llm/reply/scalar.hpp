// Members of the client library's objects, read like those of a reply.
#pragma once

#include <string>

#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::engines::llm {

/// Absent, false, zero or an empty string.
[[nodiscard]] bool is_empty(const openai::Scalar& value);

/// A string as it is, any other value as JSON, nothing when absent.
[[nodiscard]] std::string text_of(const openai::Scalar& value);

}  // namespace tovren_mapstead::engines::llm
