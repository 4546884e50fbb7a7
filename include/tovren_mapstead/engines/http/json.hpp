// Reading JSON: whole bodies and single events, from servers that are not trusted. Knows no HTTP.
// Every text that RFC 8259 allows is read, nested up to 1,024 levels deep. Half of a surrogate pair
// (section 8.2) becomes U+FFFD. A number beyond any machine type (section 6) is read as a string.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// A value inside a JSON text, or the absence of one. Cheap to copy and read-only. Valid until the
/// JsonReader that it came from parses again or is destroyed.
class TOVREN_EXPORT JsonValue {
 public:
  /// The kinds of values. Each is the letter that simdjson has for it, which saves a conversion.
  enum class Kind : char {
    absent = 0,
    null = 'n',
    boolean = 't',
    integer = 'l',
    real = 'd',
    string = '"',
    array = '[',
    object = '{'
  };

  JsonValue() = default;

  /// Returns the kind. A number without fraction and exponent is an integer.
  [[nodiscard]] Kind kind() const noexcept { return _kind; }

  /// Returns whether there is a value; null is one.
  [[nodiscard]] bool present() const noexcept { return _kind != Kind::absent; }

  /// Returns true for an absent value, null, false, zero, and an empty string, array or object.
  [[nodiscard]] bool empty() const {
    if (_kind == Kind::string) return _place.index == 0;
    return _kind == Kind::absent || _kind == Kind::null || holds_nothing();
  }

  /// Returns the member of that name; of several the last. Absent if there is none or this is not
  /// an object.
  [[nodiscard]] JsonValue operator[](std::string_view name) const;

  /// Returns the members of these names, found in one pass.
  template <std::size_t N>
  [[nodiscard]] std::array<JsonValue, N> members(
      const std::array<std::string_view, N>& names) const {
    std::array<JsonValue, N> found;
    collect(names, found);
    return found;
  }

  /// Returns the first element; absent if there is none or this is not an array.
  [[nodiscard]] JsonValue front() const;

  /// Returns the value of a boolean; false for any other kind.
  [[nodiscard]] bool boolean() const;

  /// Returns the value of an integer that fits; nothing for any other kind.
  [[nodiscard]] std::optional<std::int64_t> integer() const;

  /// Returns the value of a number; 0 for any other kind.
  [[nodiscard]] double real() const;

  /// Returns a string as it is, any other value as JSON, and an empty text if absent. The result is
  /// valid UTF-8: half of a surrogate pair becomes U+FFFD.
  [[nodiscard]] std::string text() const;

  /// Assigns `text()` to `out`, in the memory that `out` has.
  void assign_text(std::string& out) const {
    if (_kind == Kind::string && !_mended) {
      out = bytes();
    } else {
      assign_other(out);
    }
  }

  /// Appends `text()` to `out`, but keeps halves of surrogate pairs: the other half may come with
  /// the next value. Call `join_halves` (utf8.hpp) after the last one.
  void append_text(std::string& out) const {
    if (_kind == Kind::string && !_mended) {
      out += bytes();
    } else {
      append_other(out);
    }
  }

 private:
  friend struct JsonAccess;

  // The parser's handle of an element, opaque here; for a string its bytes and their number, which
  // are needed most often.
  struct Place {
    const void* document = nullptr;
    std::size_t index = 0;
  };

  [[nodiscard]] std::string_view bytes() const {
    return {static_cast<const char*>(_place.document), _place.index};
  }

  [[nodiscard]] bool holds_nothing() const;
  void assign_other(std::string& out) const;
  void append_other(std::string& out) const;
  void collect(std::span<const std::string_view> names, std::span<JsonValue> found) const;

  Place _place;
  Kind _kind = Kind::absent;
  bool _mended = false;  // the text was rewritten to be readable; its strings need undoing
};

/// Parses one text after the other, in the same memory. For one thread at a time.
class TOVREN_EXPORT JsonReader {
 public:
  JsonReader();
  /// Moves the values that were read with it.
  JsonReader(JsonReader&& other) noexcept;
  /// Invalidates the values that this reader has read.
  JsonReader& operator=(JsonReader&&) noexcept;
  ~JsonReader();

  /// Returns the value of `text`; absent if it is not JSON. Invalidates the values of the text
  /// before. `text` may be destroyed afterwards.
  JsonValue parse(std::string_view text);

  /// Does the same without a copy. The PADDING bytes after the text must be readable.
  JsonValue parse_padded(std::string_view text);

  /// How many bytes the parser may read past a text, because it reads in blocks.
  static constexpr std::size_t PADDING = 64;

 private:
  struct Parser;
  std::unique_ptr<Parser> _parser;
};

}  // namespace tovren_mapstead::engines::http
