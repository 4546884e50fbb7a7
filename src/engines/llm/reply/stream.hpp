// Streamed replies: events over HTTP, or chunk objects of the OpenAI client library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/response.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"
#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::engines::llm {

/// Reads the events of `response` and returns the answer that they make. `timeout_s` limits the
/// whole stream, in seconds, and is tested when bytes have come; 0 means no limit. Throws
/// http::Retryable if bytes come after the limit or the stream broke off without an answer,
/// LLMError for an answer beyond 64 MiB, and what reading throws.
[[nodiscard]] LLMResult _parse_sse_stream(http::Response& response,
                                          const std::string& fallback_model, double timeout_s = 0);

/// Reads the chunks of `stream` likewise. The limit is tested when a chunk has come.
[[nodiscard]] LLMResult _accumulate_sdk_stream(openai::ChunkStream& stream,
                                               const std::string& fallback_model,
                                               double timeout_s = 0);

/// Returns the message of the error that an event reports in its member `error`, if there is one.
[[nodiscard]] std::optional<std::string> _stream_error_message(const http::JsonValue& error);

/// Returns the result of a stream that has ended. `parts` holds the content deltas joined in order,
/// halves of surrogate pairs included. Throws http::Retryable for a stream without a finish reason
/// that reported an error or had no content: it broke off, and another attempt may succeed.
[[nodiscard]] LLMResult _build_stream_result(std::string parts, std::string model,
                                             std::optional<std::string> finish_reason,
                                             std::int64_t prompt_tokens,
                                             std::int64_t completion_tokens,
                                             const std::optional<std::string>& error_msg);

}  // namespace tovren_mapstead::engines::llm
