#include "engines/llm/reply/completion.hpp"

#include <optional>

#include "tovren_mapstead/engines/llm/errors.hpp"

#include "engines/http/quote.hpp"
#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "engines/llm/tunables.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using http::JsonValue;

// Why a reply is no completion, in the words of the server where it has any.
class Refusal {
 public:
  Refusal(const JsonValue& told, const http::Secrets& secrets) : _told(told), _secrets(secrets) {}

  [[noreturn]] void operator()(const std::string& what) const {
    throw LLMError("LLM response is malformed: " + what + "; check the URL and the model: " +
                   http::quote(_told.text(), _secrets, DETAIL_CHARS));
  }

 private:
  const JsonValue& _told;
  const http::Secrets& _secrets;
};

}  // namespace

LLMResult _parse_completion(const JsonValue& payload, const std::string& fallback_model,
                            const http::Secrets& secrets) {
  using Kind = JsonValue::Kind;
  if (payload.kind() != Kind::object) throw LLMError("LLM response is not a JSON object");
  const auto [choices, model, usage, error] =
      payload.members<4>({"choices", "model", "usage", "error"});
  const JsonValue& told = error.empty() ? payload : error;
  if (choices.empty()) {
    // The text may be as large as the reply: what it was made from is gone before it is copied.
    const std::string detail = http::redact(told.text(), secrets);
    throw LLMError("LLM response missing 'choices': " + detail);
  }
  const Refusal refuse(told, secrets);
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
