// Characters: ASCII letter case, blanks, UTF-8, and the escapes of JSON strings (RFC 8259, section
// 7).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// U+FEFF, which some servers send before a text.
inline constexpr std::string_view BYTE_ORDER_MARK = "\uFEFF";

/// Returns an ASCII letter in lower case, and any other character unchanged.
[[nodiscard]] constexpr char lower_case(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Returns `text` with its ASCII letters in lower case.
[[nodiscard]] TOVREN_EXPORT std::string lower_case(std::string_view text);

/// Returns whether both are equal, ignoring the case of ASCII letters.
[[nodiscard]] TOVREN_EXPORT bool equal_in_any_case(std::string_view left,
                                                   std::string_view right) noexcept;

/// Returns `text` without spaces, tabs and line ends at both ends.
[[nodiscard]] TOVREN_EXPORT std::string_view trim_blanks(std::string_view text) noexcept;

/// Appends a code point in UTF-8. Half of a surrogate pair becomes three bytes that are not valid
/// UTF-8 (the encoding WTF-8).
void append_utf8(std::string& out, std::uint32_t code_point);

/// A character, or half of a surrogate pair, and its number of bytes.
struct Character {
  std::uint32_t code_point = 0;
  std::size_t width = 0;  ///< 0 if there is no valid character.
};

/// Returns the character at the start of `text`; width 0 if that is not valid UTF-8.
[[nodiscard]] TOVREN_EXPORT Character read_utf8(std::string_view text) noexcept;

[[nodiscard]] constexpr bool is_high_half(std::uint32_t code_point) noexcept {
  return code_point >= 0xD800 && code_point <= 0xDBFF;
}

[[nodiscard]] constexpr bool is_low_half(std::uint32_t code_point) noexcept {
  return code_point >= 0xDC00 && code_point <= 0xDFFF;
}

/// Returns the character of a surrogate pair.
[[nodiscard]] constexpr std::uint32_t join_pair(std::uint32_t high, std::uint32_t low) noexcept {
  return 0x10000 + ((high - 0xD800) << 10U) + (low - 0xDC00);
}

/// Returns the character of the JSON escape at the start of `text`. Reads the two escapes of a
/// surrogate pair as one character.
[[nodiscard]] Character read_escape(std::string_view text) noexcept;

}  // namespace tovren_mapstead::engines::http
