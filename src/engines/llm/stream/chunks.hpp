// Streamed replies of the OpenAI client library: chunk objects instead of lines.
#pragma once

#include <string>

#include "tovren_mapstead/engines/llm/result.hpp"
#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::engines::llm {

/// Reads chunks from `stream` to its end. `timeout_s`: wall-clock limit of the whole in seconds,
/// tested when a chunk has come; 0: none.
/// Throws http::Retryable when a chunk comes after the limit or the stream broke off without an
/// answer, LLMError for an answer beyond all bounds, and what reading throws.
[[nodiscard]] LLMResult _accumulate_sdk_stream(openai::ChunkStream& stream,
                                               const std::string& fallback_model,
                                               double timeout_s = 0);

}  // namespace tovren_mapstead::engines::llm
