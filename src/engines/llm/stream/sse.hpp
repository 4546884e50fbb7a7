// Streamed replies over HTTP: server-sent events, one JSON object a `data:` line.
#pragma once

#include <functional>
#include <string>

#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/send.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"

namespace tovren_mapstead::engines::llm {

/// Bounds of the reading of one stream.
struct StreamOptions {
  const double timeout_s = 0;     ///< Wall-clock limit of the whole stream in seconds; 0: none.
  const http::Secrets secrets{};  ///< Kept out of what a reported error says.
  const std::function<http::Clock::time_point()>
      clock{};  ///< Read for each line; empty: the steady clock, read when bytes have come.
};

/// Reads events from `response` up to the end marker or the end of the body.
/// Throws http::Retryable when a line comes after the time limit or the stream broke off without an
/// answer, LLMError for text that is not UTF-8 or an answer beyond all bounds, and what reading
/// throws.
[[nodiscard]] LLMResult _parse_sse_stream(http::Response& response,
                                          const std::string& fallback_model,
                                          const StreamOptions& options = {});

}  // namespace tovren_mapstead::engines::llm
