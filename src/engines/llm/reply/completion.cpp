#include "engines/llm/reply/completion.hpp"

#include <optional>

#include "tovren_mapstead/engines/llm/errors.hpp"

#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/token_count.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using http::JsonValue;

[[noreturn]] void refuse(const std::string& what) {
  throw LLMError("LLM response is malformed: " + what);
}

}  // namespace

LLMResult _parse_completion(const JsonValue& payload, const std::string& fallback_model,
                            const http::Secrets& secrets) {
  using Kind = JsonValue::Kind;
  if (payload.kind() != Kind::object) throw LLMError("LLM response is not a JSON object");
  const auto [choices, model, usage, error] =
      payload.members<4>({"choices", "model", "usage", "error"});
  if (choices.empty()) {
    const JsonValue& told = error.empty() ? payload : error;
    throw LLMError("LLM response missing 'choices': " + http::redact(told.text(), secrets));
  }
  if (choices.kind() != Kind::array) refuse("'choices' is not an array");
  const JsonValue first = choices.front();
  if (first.kind() != Kind::object) refuse("the first of 'choices' is not an object");
  const JsonValue message = first["message"];
  if (!message.empty() && message.kind() != Kind::object) refuse("'message' is not an object");
  const JsonValue content = message["content"];
  if (!content.empty() && content.kind() != Kind::string) refuse("'content' is not a string");
  const JsonValue finish_reason = first["finish_reason"];
  const bool finished = finish_reason.kind() != Kind::absent && finish_reason.kind() != Kind::null;
  return {.content = _strip_reasoning(content.empty() ? std::string() : content.text()),
          .model = model.empty() ? fallback_model : model.text(),
          .prompt_tokens = _as_int(usage["prompt_tokens"]),
          .completion_tokens = _as_int(usage["completion_tokens"]),
          .finish_reason = finished ? std::optional(finish_reason.text()) : std::nullopt};
}

}  // namespace tovren_mapstead::engines::llm
