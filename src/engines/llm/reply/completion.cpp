#include "engines/llm/reply/completion.hpp"

#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>
#include <system_error>

#include "tovren_mapstead/engines/llm/errors.hpp"

#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/white_space.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using http::JsonValue;

std::optional<std::int64_t> whole(double number) {
  constexpr double LIMIT = 0x1p63;  // the first that does not fit
  if (!(number >= -LIMIT && number < LIMIT)) return std::nullopt;
  return static_cast<std::int64_t>(number);
}

std::optional<std::int64_t> whole(std::string_view text) {
  text = trim(text);
  if (text.starts_with('+')) text.remove_prefix(text.starts_with("+-") ? 0 : 1);
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return number;
}

[[noreturn]] void refuse(const std::string& what) {
  throw LLMError("LLM response is malformed: " + what);
}

}  // namespace

std::int64_t _as_int(const JsonValue& value, std::int64_t fallback) {
  switch (value.kind()) {
    case JsonValue::Kind::boolean:
      return value.boolean() ? 1 : 0;
    case JsonValue::Kind::integer:
      return value.integer().value_or(fallback);
    case JsonValue::Kind::real:
      return whole(value.real()).value_or(fallback);
    case JsonValue::Kind::string:
      return whole(value.text()).value_or(fallback);
    case JsonValue::Kind::absent:
    case JsonValue::Kind::null:
    case JsonValue::Kind::array:
    case JsonValue::Kind::object:
      break;
  }
  return fallback;
}

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
