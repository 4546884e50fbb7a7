#include "engines/llm/stream/result.hpp"

#include <cstddef>
#include <utility>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/llm/errors.hpp"

#include "engines/llm/reply/reasoning.hpp"

namespace tovren_mapstead::engines::llm {

std::optional<std::string> _stream_error_message(const http::JsonValue& error) {
  if (error.empty()) return std::nullopt;
  const http::JsonValue message = error["message"];
  return message.empty() ? error.text() : message.text();
}

void check_length(const std::string& parts) {
  constexpr std::size_t MOST = std::size_t{64} << 20U;
  if (parts.size() > MOST) throw LLMError("LLM answer is longer than 64 MiB; ask for fewer tokens");
}

LLMResult _build_stream_result(std::string parts, std::string model,
                               std::optional<std::string> finish_reason, std::int64_t prompt_tokens,
                               std::int64_t completion_tokens,
                               const std::optional<std::string>& error_msg) {
  http::join_halves(parts);
  std::string content = _strip_reasoning(std::move(parts));
  if (!finish_reason) {
    if (error_msg && !error_msg->empty()) throw http::Retryable("stream error: " + *error_msg);
    if (content.empty()) throw http::Retryable("empty stream (no content received)");
  }
  return {.content = std::move(content),
          .model = std::move(model),
          .prompt_tokens = prompt_tokens,
          .completion_tokens = completion_tokens,
          .finish_reason = std::move(finish_reason)};
}

}  // namespace tovren_mapstead::engines::llm
