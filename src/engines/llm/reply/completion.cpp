#include "engines/llm/reply/completion.hpp"

#include <optional>
#include <utility>

#include "tovren_mapstead/engines/llm/errors.hpp"

#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "engines/llm/tunables.hpp"
#include "text/quote.hpp"

namespace tovren_mapstead::engines::llm {

using http::JsonValue;

LLMResult _parse_completion(const JsonValue& payload, const std::string& fallback_model,
                            const http::Secrets& secrets) {
  using Kind = JsonValue::Kind;
  if (payload.kind() != Kind::object) throw LLMError("LLM response is not a JSON object");
  const auto [choices, model, usage, error] =
      payload.members<4>({"choices", "model", "usage", "error"});
  const JsonValue& reason = error.empty() ? payload : error;  // in the server's words if it has any
  if (choices.empty()) {
    // The text may be as large as the reply, so it has as few copies as possible.
    std::string text = http::redact(reason.text(), secrets);
    throw LLMError(std::move(text.insert(0, "LLM response missing 'choices': ")));
  }
  const auto require = [&](bool good, const char* what) {
    if (good) return;
    throw LLMError(
        std::string("LLM response is malformed: ") + what +
        "; check the URL and the model: " + http::quote(reason.text(), secrets, DETAIL_CHARS));
  };
  require(choices.kind() == Kind::array, "'choices' is not an array");
  const JsonValue first = choices.front();
  require(first.kind() == Kind::object, "the first of 'choices' is not an object");
  const auto [message, finish_reason] = first.members<2>({"message", "finish_reason"});
  require(message.empty() || message.kind() == Kind::object, "'message' is not an object");
  const JsonValue content = message["content"];
  require(content.empty() || content.kind() == Kind::string, "'content' is not a string");
  const bool finished = finish_reason.kind() != Kind::absent && finish_reason.kind() != Kind::null;
  const auto [prompt_tokens, completion_tokens] =
      usage.members<2>({"prompt_tokens", "completion_tokens"});
  return LLMResult(
      {.content = _strip_reasoning(content.empty() ? std::string() : content.text()),
       .model = model.empty() ? fallback_model : model.text(),
       .prompt_tokens = _as_int(prompt_tokens),
       .completion_tokens = _as_int(completion_tokens),
       .finish_reason = finished ? std::optional(finish_reason.text()) : std::nullopt});
}

}  // namespace tovren_mapstead::engines::llm
