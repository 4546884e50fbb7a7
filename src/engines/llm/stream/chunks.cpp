#include "engines/llm/stream/chunks.hpp"

#include <cstdint>
#include <optional>
#include <utility>

#include "engines/http/time_limit.hpp"
#include "engines/llm/reply/scalar.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "engines/llm/stream/result.hpp"

namespace tovren_mapstead::engines::llm {

LLMResult _accumulate_sdk_stream(openai::ChunkStream& stream, const std::string& fallback_model,
                                 double timeout_s) {
  const http::TimeLimit limit(timeout_s);
  std::string parts;
  std::optional<std::string> finish_reason;
  std::string model = fallback_model;
  std::int64_t prompt_tokens = 0;
  std::int64_t completion_tokens = 0;
  while (const std::optional<openai::Chunk> chunk = stream.next()) {
    limit.check();
    if (!is_empty(chunk->model)) model = text_of(chunk->model);
    if (chunk->choices && !chunk->choices->empty()) {
      const openai::ChunkChoice& first = chunk->choices->front();
      if (first.delta && !is_empty(first.delta->content)) {
        parts += text_of(first.delta->content);
        check_length(parts);
      }
      if (!is_empty(first.finish_reason)) finish_reason = text_of(first.finish_reason);
    }
    if (chunk->usage) {
      prompt_tokens = _as_int(chunk->usage->prompt_tokens, prompt_tokens);
      completion_tokens = _as_int(chunk->usage->completion_tokens, completion_tokens);
    }
  }
  return _build_stream_result(std::move(parts), std::move(model), std::move(finish_reason),
                              prompt_tokens, completion_tokens, std::nullopt);
}

}  // namespace tovren_mapstead::engines::llm
