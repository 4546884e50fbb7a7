#include "text/characters.hpp"

#include <algorithm>
#include <charconv>

namespace tovren_mapstead::engines::http {
namespace {

constexpr char as_char(std::uint32_t byte) {
  return static_cast<char>(byte & 0xFFU);
}

constexpr std::uint32_t as_byte(char c) {
  return static_cast<unsigned char>(c);
}

// Reads the escape at the start of `text`: a backslash, u and four hexadecimal digits.
Character read_unit(std::string_view text) noexcept {
  constexpr std::size_t WIDTH = 6;
  if (text.size() < WIDTH || text[0] != '\\' || text[1] != 'u') return {};
  std::uint32_t unit = 0;
  const char* const end = text.data() + WIDTH;
  if (std::from_chars(text.data() + 2, end, unit, 16).ptr != end) return {};
  return {.code_point = unit, .width = WIDTH};
}

// Returns the meaning of a backslash and `letter`; NUL if that is no escape.
constexpr char meaning_of(char letter) {
  constexpr std::string_view LETTERS = "\"\\/bfnrt";
  constexpr std::string_view MEANINGS = "\"\\/\b\f\n\r\t";
  const std::size_t at = LETTERS.find(letter);
  return at == std::string_view::npos ? '\0' : MEANINGS[at];
}

}  // namespace

std::string lower_case(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = lower_case(c);
  return result;
}

bool equal_in_any_case(std::string_view left, std::string_view right) noexcept {
  return std::ranges::equal(left, right,
                            [](char a, char b) { return lower_case(a) == lower_case(b); });
}

std::string_view trim_blanks(std::string_view text) noexcept {
  constexpr std::string_view BLANKS = " \t\r\n";
  const std::size_t begin = std::min(text.find_first_not_of(BLANKS), text.size());
  return text.substr(begin, text.find_last_not_of(BLANKS) + 1 - begin);
}

void append_utf8(std::string& out, std::uint32_t code_point) {
  if (code_point < 0x80) {
    out += as_char(code_point);
    return;
  }
  if (code_point < 0x800) {
    out += as_char(0xC0U | (code_point >> 6U));
  } else {
    if (code_point < 0x10000) {
      out += as_char(0xE0U | (code_point >> 12U));
    } else {
      out += as_char(0xF0U | (code_point >> 18U));
      out += as_char(0x80U | ((code_point >> 12U) & 0x3FU));
    }
    out += as_char(0x80U | ((code_point >> 6U) & 0x3FU));
  }
  out += as_char(0x80U | (code_point & 0x3FU));
}

Character read_utf8(std::string_view text) noexcept {
  if (text.empty()) return {};
  const std::uint32_t lead = as_byte(text[0]);
  if (lead < 0x80) return {.code_point = lead, .width = 1};
  const std::size_t width = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < width) return {};
  // The limits exclude overlong forms, surrogates and code points beyond U+10FFFF.
  const std::uint32_t least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const std::uint32_t most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (as_byte(text[1]) < least || as_byte(text[1]) > most) return {};
  std::uint32_t code_point = lead & (0x7FU >> width);
  for (std::size_t i = 1; i < width; ++i) {
    if ((as_byte(text[i]) & 0xC0U) != 0x80U) return {};
    code_point = code_point << 6U | (as_byte(text[i]) & 0x3FU);
  }
  return {.code_point = code_point, .width = width};
}

Character read_escape(std::string_view text) noexcept {
  if (text.size() < 2 || text[0] != '\\') return {};
  if (const char meaning = meaning_of(text[1]); meaning != '\0') {
    return {.code_point = as_byte(meaning), .width = 2};
  }
  const Character first = read_unit(text);
  if (first.width == 0 || !is_high_half(first.code_point)) return first;
  const Character second = read_unit(text.substr(first.width));
  if (second.width == 0 || !is_low_half(second.code_point)) return first;
  return {.code_point = join_pair(first.code_point, second.code_point),
          .width = first.width + second.width};
}

}  // namespace tovren_mapstead::engines::http
