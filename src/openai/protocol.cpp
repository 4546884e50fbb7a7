#include "openai/protocol.hpp"

#include <type_traits>
#include <variant>

namespace tovren_mapstead::openai {

using engines::http::JsonObject;
using engines::http::JsonValue;

std::string chat_url(std::string_view base_url) {
  base_url = base_url.substr(0, base_url.find_last_not_of('/') + 1);
  return std::string(base_url) + "/chat/completions";
}

JsonObject to_json(const CreateArguments& arguments) {
  JsonObject body;
  body.add("model", arguments.model).begin_array("messages");
  for (const RequestMessage& message : arguments.messages) {
    body.begin_object().add("role", message.role).add("content", message.content);
    for (const auto& [name, value] : message.others) body.add(name, value);
    body.end();
  }
  body.end().add("temperature", arguments.temperature).add("max_tokens", arguments.max_tokens);
  if (arguments.stream) body.add("stream", *arguments.stream);
  if (const auto& options = arguments.stream_options) {
    body.begin_object("stream_options").add("include_usage", options->include_usage).end();
  }
  if (const auto& format = arguments.response_format) {
    body.begin_object("response_format").add("type", format->type).end();
  }
  return body;
}

Scalar to_scalar(const JsonValue& value) {
  switch (value.kind()) {
    case JsonValue::Kind::absent:
    case JsonValue::Kind::null:
      return {};
    case JsonValue::Kind::boolean:
      return value.boolean();
    case JsonValue::Kind::integer:
      if (const auto integer = value.integer()) return *integer;
      return value.real();
    case JsonValue::Kind::real:
      return value.real();
    case JsonValue::Kind::string:
    case JsonValue::Kind::array:
    case JsonValue::Kind::object:
      break;
  }
  if (value.empty() && value.kind() != JsonValue::Kind::string) return {};
  return value.text();
}

bool is_empty(const Scalar& value) {
  return std::visit(
      []<class Held>(const Held& held) {
        if constexpr (std::is_same_v<Held, std::monostate>) {
          return true;
        } else {
          return held == Held{};
        }
      },
      value);
}

std::string text_of(const Scalar& value) {
  return std::visit(
      []<class Held>(const Held& held) -> std::string {
        if constexpr (std::is_same_v<Held, std::monostate>) {
          return {};
        } else if constexpr (std::is_same_v<Held, bool>) {
          return held ? "true" : "false";
        } else if constexpr (std::is_same_v<Held, double>) {
          return engines::http::json_number(held);
        } else if constexpr (std::is_same_v<Held, std::int64_t>) {
          return std::to_string(held);
        } else {
          return held;
        }
      },
      value);
}

}  // namespace tovren_mapstead::openai
