// Going over the members of an object without a call for each: for the loop that runs for every
// event of a stream. Elsewhere `JsonValue::members` reads better.
#pragma once

#include <bit>
#include <string_view>

#include <simdjson.h>

#include "tovren_mapstead/engines/http/json.hpp"

namespace tovren_mapstead::engines::http {

/// What the parser's elements are as values.
[[nodiscard]] inline JsonValue::Kind kind_of(simdjson::dom::element_type type) noexcept {
  using simdjson::dom::element_type;
  switch (type) {
    case element_type::ARRAY:
      return JsonValue::Kind::array;
    case element_type::OBJECT:
      return JsonValue::Kind::object;
    case element_type::INT64:
    case element_type::UINT64:
      return JsonValue::Kind::integer;
    case element_type::DOUBLE:
      return JsonValue::Kind::real;
    case element_type::STRING:
      return JsonValue::Kind::string;
    case element_type::BOOL:
      return JsonValue::Kind::boolean;
    case element_type::NULL_VALUE:
      break;
  }
  return JsonValue::Kind::null;
}

/// The way between values and the parser's elements.
struct JsonAccess {
  static JsonValue value(simdjson::dom::element element, bool mended) noexcept {
    JsonValue value;
    value._place = std::bit_cast<JsonValue::Place>(element);
    value._kind = kind_of(element.type());
    value._mended = mended;
    return value;
  }

  static bool mended(const JsonValue& value) noexcept { return value._mended; }

  /// What `value` is, as its own type; else nothing of that type: false, 0, empty.
  template <class Type>
  static Type taken(const JsonValue& value) noexcept {
    Type result{};
    const bool found =
        value._place.document != nullptr &&
        std::bit_cast<simdjson::dom::element>(value._place).get(result) == simdjson::SUCCESS;
    return found ? result : Type{};
  }
};

/// Calls `visit(name, value)` for every member of `object`, in order; `value()` makes the value.
template <class Visit>
void for_each_member(const JsonValue& object, Visit visit) {
  if (object.kind() != JsonValue::Kind::object) return;
  const auto members = JsonAccess::taken<simdjson::dom::object>(object);
  const bool mended = JsonAccess::mended(object);
  const auto end = members.end();
  for (auto member = members.begin(); member != end; ++member) {
    visit(member.key(), [&] { return JsonAccess::value(member.value(), mended); });
  }
}

}  // namespace tovren_mapstead::engines::http
