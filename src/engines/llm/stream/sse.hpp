// Streamed replies over HTTP: server-sent events, one JSON object a `data:` line.
#pragma once

#include <string>

#include "tovren_mapstead/engines/http/send.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"

namespace tovren_mapstead::engines::llm {

/// Reads events from `response` up to the end marker or the end of the body. `timeout_s`:
/// wall-clock limit of the whole in seconds, tested when bytes have come; 0: none. Throws
/// http::Retryable when bytes come after the limit or the stream broke off without an answer,
/// LLMError for text that is not UTF-8 or an answer beyond all bounds, and what reading throws.
[[nodiscard]] LLMResult _parse_sse_stream(http::Response& response,
                                          const std::string& fallback_model, double timeout_s = 0);

}  // namespace tovren_mapstead::engines::llm
