// Writing a JSON object, member by member. For request bodies, whose strings can be megabytes long.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// A JSON object that is written from its first member to its last. A value; one thread at a time.
///
///     JsonObject body;
///     body.add("model", "m").begin_array("messages");
///     body.begin_object().add("role", "user").end().end();
class TOVREN_EXPORT JsonObject {
 public:
  /// Begins the object.
  JsonObject();

  /// Adds a member to the innermost object, or an element, which has no name, to the innermost
  /// array. A string that is not valid UTF-8 and a number that is not finite are a fault.
  JsonObject& add(std::string_view name, std::string_view text);

  /// As above: a literal is a string, not a boolean.
  JsonObject& add(std::string_view name, const char* text) {
    return add(name, std::string_view(text));
  }

  /// As above.
  JsonObject& add(std::string_view name, double number);

  /// As above, for booleans and integers.
  template <std::integral Value>
  JsonObject& add(std::string_view name, Value value) {
    if constexpr (std::same_as<Value, bool>) return append(name, value ? "true" : "false");
    return append(name, std::to_string(value));
  }

  /// Begins an object as the next member or element. `end` ends it.
  JsonObject& begin_object(std::string_view name = {}) { return begin(name, '{'); }

  /// Begins an array as the next member or element. `end` ends it.
  JsonObject& begin_array(std::string_view name = {}) { return begin(name, '['); }

  /// Ends the object or array that was begun last. Does nothing if none is open.
  JsonObject& end();

  /// Returns what cannot be written and where, without quoting it, for example "text that is not
  /// valid UTF-8 at /messages/0/content"; empty if there is no fault.
  [[nodiscard]] const std::string& fault() const noexcept { return _fault; }

  /// Ends whatever is open and returns the object as JSON text; empty if there is a fault.
  [[nodiscard]] std::string text() &&;

 private:
  // An object or array that is not complete yet.
  struct Open {
    std::size_t elements = 0;
    char end = '}';
    std::string last_name{};
  };

  JsonObject& append(std::string_view name, std::string_view json);
  JsonObject& begin(std::string_view name, char bracket);
  void begin_value(std::string_view name);
  void append_string(std::string_view text, std::string_view what);
  void note_fault(std::string_view what);

  std::string _text;
  std::vector<Open> _open;  // the object itself first
  std::string _fault;
};

/// Returns the shortest text that is read as `number` again, with a fraction or an exponent.
[[nodiscard]] TOVREN_EXPORT std::string json_number(double number);

}  // namespace tovren_mapstead::engines::http
