// Visits the members of an object without a function call for each, for the loop that runs for
// every event of a stream. Elsewhere use `JsonValue::members`.
#pragma once

#include <bit>
#include <string_view>

#include <simdjson.h>

#include "tovren_mapstead/engines/http/json.hpp"

namespace tovren_mapstead::engines::http {

/// Returns the kind of a parser's element.
[[nodiscard]] inline JsonValue::Kind kind_of(simdjson::dom::element_type type) noexcept {
  using simdjson::dom::element_type;
  using Kind = JsonValue::Kind;
  const auto is = [](Kind kind, element_type letter) {
    return static_cast<char>(kind) == static_cast<char>(letter);
  };
  static_assert(is(Kind::null, element_type::NULL_VALUE) && is(Kind::boolean, element_type::BOOL) &&
                is(Kind::integer, element_type::INT64) && is(Kind::real, element_type::DOUBLE) &&
                is(Kind::string, element_type::STRING) && is(Kind::array, element_type::ARRAY) &&
                is(Kind::object, element_type::OBJECT));
  return type == element_type::UINT64 ? Kind::integer : static_cast<Kind>(type);
}

/// Converts between values and the parser's elements.
struct JsonAccess {
  static JsonValue value(simdjson::dom::element element, bool mended) noexcept {
    JsonValue value;
    value._kind = kind_of(element.type());
    value._mended = mended;
    if (std::string_view text; element.get(text) == simdjson::SUCCESS) {
      value._place = {text.data(), text.size()};
    } else {
      value._place = std::bit_cast<JsonValue::Place>(element);
    }
    return value;
  }

  static bool mended(const JsonValue& value) noexcept { return value._mended; }

  /// Returns `value` as a `Type`; false, 0 or empty if it is of another type. Not for strings.
  template <class Type>
  static Type as(const JsonValue& value) noexcept {
    Type result{};
    const bool found =
        value._kind != JsonValue::Kind::absent && value._kind != JsonValue::Kind::string &&
        std::bit_cast<simdjson::dom::element>(value._place).get(result) == simdjson::SUCCESS;
    return found ? result : Type{};
  }
};

/// Calls `visit(name, value)` for every member of `object`, in order. `value()` returns its value.
template <class Visit>
void for_each_member(const JsonValue& object, Visit visit) {
  if (object.kind() != JsonValue::Kind::object) return;
  const auto members = JsonAccess::as<simdjson::dom::object>(object);
  const bool mended = JsonAccess::mended(object);
  const auto end = members.end();
  for (auto member = members.begin(); member != end; ++member) {
    visit(member.key(), [&] { return JsonAccess::value(member.value(), mended); });
  }
}

}  // namespace tovren_mapstead::engines::http
