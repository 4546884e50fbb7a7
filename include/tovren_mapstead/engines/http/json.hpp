// JSON as the engine reads it: whole bodies and single events, from servers that are not trusted.
// Every text that RFC 8259 allows is read, nested up to 1,024 levels deep: a surrogate escape
// without its other half (section 8.2) and a number beyond any machine type (section 6) cost a
// value nothing but themselves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/send.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// A value inside a JSON text, or the absence of one. Cheap to copy, read-only; valid as long as
/// the JsonReader that it came from, and until that one parses again.
class TOVREN_EXPORT JsonValue {
 public:
  /// Each in the letter that the parser has for it, so that none needs looking up.
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

  /// What it is; a number without fraction and exponent is an integer.
  [[nodiscard]] Kind kind() const noexcept { return _kind; }

  /// Whether there is a value, null included.
  [[nodiscard]] bool present() const noexcept { return _kind != Kind::absent; }

  /// Absent, null, false, zero, or a string, array or object that holds nothing.
  [[nodiscard]] bool empty() const {
    if (_kind == Kind::string) return _place.index == 0;
    return _kind == Kind::absent || _kind == Kind::null || holds_nothing();
  }

  /// The member of that name; of several the last, as is usual. Absent when there is none or this
  /// is not an object.
  [[nodiscard]] JsonValue operator[](std::string_view name) const;

  /// The members of these names, found in one pass.
  template <std::size_t N>
  [[nodiscard]] std::array<JsonValue, N> members(
      const std::array<std::string_view, N>& names) const {
    std::array<JsonValue, N> found;
    collect(names, found);
    return found;
  }

  /// The first element; absent when there is none or this is not an array.
  [[nodiscard]] JsonValue front() const;

  /// Of a boolean, else false.
  [[nodiscard]] bool boolean() const;

  /// Of an integer that fits, else absent.
  [[nodiscard]] std::optional<std::int64_t> integer() const;

  /// Of a number, else 0.
  [[nodiscard]] double real() const;

  /// A string as it is, any other value as JSON, nothing when absent. Always valid UTF-8: half of a
  /// surrogate pair becomes U+FFFD.
  [[nodiscard]] std::string text() const;

  /// `out` becomes `text()`, in the memory that it has.
  void assign_text(std::string& out) const {
    if (_kind == Kind::string && !_mended) {
      out = bytes();
    } else {
      assign_other(out);
    }
  }

  /// Appends `text()`, but keeps halves of surrogate pairs, so that the other half may come with
  /// the next value; `join_halves` ends that.
  void append_text(std::string& out) const {
    if (_kind == Kind::string && !_mended) {
      out += bytes();
    } else {
      append_other(out);
    }
  }

 private:
  friend struct JsonAccess;

  // The parser's own handle to an element, kept opaque here; of a string its bytes and their
  // number, which are asked for most.
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

/// Joins the halves of surrogate pairs that `append_text` left and puts U+FFFD in place of those
/// that stay alone. What was valid UTF-8 stays as it is.
TOVREN_EXPORT void join_halves(std::string& text);

/// Whether `text` is valid UTF-8 (RFC 3629).
[[nodiscard]] TOVREN_EXPORT bool is_utf8(std::string_view text) noexcept;

/// Parses one text after the other in memory that it keeps. One thread at a time.
class TOVREN_EXPORT JsonReader {
 public:
  JsonReader();
  /// Values of `other` are values of this one from now on.
  JsonReader(JsonReader&& other) noexcept;
  /// Ends the life of the values read before.
  JsonReader& operator=(JsonReader&&) noexcept;
  ~JsonReader();

  /// The value of `text`; absent when it is not JSON. Ends the life of the values of the text
  /// before; the text itself is not needed any more afterwards.
  JsonValue parse(std::string_view text);

  /// The same without a copy. The parser reads in blocks: Response::PADDING bytes after the text
  /// are readable, too.
  JsonValue parse_padded(std::string_view text);

  /// The size of the longest text that it has memory for, in bytes; each takes some 14.
  [[nodiscard]] std::size_t capacity() const noexcept;

 private:
  struct Parser;
  std::unique_ptr<Parser> _parser;
};

/// Reads the whole body of `reply`, at most `policy.max_body_bytes`, as JSON. The value lives as
/// long as the reply. Throws Retryable when the text breaks off before its end, HttpFailure, which
/// quotes the start of the body, when it is not JSON, and what reading throws.
TOVREN_EXPORT JsonValue read_json(Response& reply, const RetryPolicy& policy,
                                  const Secrets& secrets);

}  // namespace tovren_mapstead::engines::http
