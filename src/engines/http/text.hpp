// Characters: ASCII letter case, UTF-8, and the escapes of JSON strings (RFC 8259, section 7).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// `text` with the ASCII letters in lower case.
[[nodiscard]] TOVREN_EXPORT std::string lower_case(std::string_view text);

/// Whether both are the same but for the letter case of ASCII letters.
[[nodiscard]] bool equal_in_any_case(std::string_view left, std::string_view right) noexcept;

/// Appends a code point in UTF-8; half of a surrogate pair in the three bytes of its number, which
/// is not UTF-8 (it is what WTF-8 does).
void append_utf8(std::string& out, std::uint32_t code_point);

/// A character, perhaps half of a surrogate pair, and how it is spelt.
struct Character {
  std::uint32_t code_point = 0;
  std::size_t width = 0;  ///< In bytes; 0: there is none here.
};

/// The character at the start of `text`, if that is valid UTF-8.
[[nodiscard]] TOVREN_EXPORT Character read_utf8(std::string_view text) noexcept;

[[nodiscard]] constexpr bool is_high_half(std::uint32_t code_point) noexcept {
  return code_point >= 0xD800 && code_point <= 0xDBFF;
}

[[nodiscard]] constexpr bool is_low_half(std::uint32_t code_point) noexcept {
  return code_point >= 0xDC00 && code_point <= 0xDFFF;
}

/// The character that two halves of a surrogate pair make.
[[nodiscard]] constexpr std::uint32_t join_pair(std::uint32_t high, std::uint32_t low) noexcept {
  return 0x10000 + ((high - 0xD800) << 10U) + (low - 0xDC00);
}

/// The character that the JSON escape at the start of `text` stands for; two escapes that make a
/// pair are read as one.
[[nodiscard]] Character read_escape(std::string_view text) noexcept;

}  // namespace tovren_mapstead::engines::http
