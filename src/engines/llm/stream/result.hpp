// What both stream decoders share: in-band errors and the ending of a stream.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"

namespace tovren_mapstead::engines::llm {

/// The text of the error that an event reports, if it reports one. `error`: its member of that
/// name.
[[nodiscard]] std::optional<std::string> _stream_error_message(const http::JsonValue& error);

/// Throws LLMError for content longer than any answer. A stream has no end that could be known
/// beforehand, so what it may fill is bounded like a whole body.
void check_length(const std::string& parts);

/// What a stream that has ended comes to. `parts` holds the content deltas joined in order, halves
/// of surrogate pairs included.
/// Throws http::Retryable for a stream without a finish reason that reported an error or gave no
/// text: it broke off, and another attempt may give the answer.
[[nodiscard]] LLMResult _build_stream_result(std::string parts, std::string model,
                                             std::optional<std::string> finish_reason,
                                             std::int64_t prompt_tokens,
                                             std::int64_t completion_tokens,
                                             const std::optional<std::string>& error_msg);

}  // namespace tovren_mapstead::engines::llm
