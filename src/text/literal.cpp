#include "text/literal.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Control characters, blanks other than the space, marks without width, and code points that are no
// characters. A pasted URL may hold them.
constexpr std::array<std::pair<std::uint32_t, std::uint32_t>, 22> UNSEEN{
    {{0x00, 0x1F},       {0x7F, 0xA0},       {0xAD, 0xAD},       {0x600, 0x605},
     {0x61C, 0x61C},     {0x6DD, 0x6DD},     {0x70F, 0x70F},     {0x8E2, 0x8E2},
     {0x1680, 0x1680},   {0x180E, 0x180E},   {0x2000, 0x200F},   {0x2028, 0x202F},
     {0x205F, 0x206F},   {0x3000, 0x3000},   {0xE000, 0xF8FF},   {0xFEFF, 0xFEFF},
     {0xFFF0, 0xFFFB},   {0xFFFE, 0xFFFF},   {0x110BD, 0x110BD}, {0x110CD, 0x110CD},
     {0x1D173, 0x1D17A}, {0xE0000, 0x10FFFF}}};

std::string escaped(std::uint32_t code_point) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  if (code_point == '\t') return "\\t";
  if (code_point == '\n') return "\\n";
  if (code_point == '\r') return "\\r";
  const std::size_t width = code_point < 0x100 ? 2 : code_point < 0x10000 ? 4 : 8;
  std::string out(width, '0');
  for (auto digit = out.rbegin(); digit != out.rend(); ++digit, code_point >>= 4U) {
    *digit = DIGITS[code_point & 0xFU];
  }
  return (width == 2 ? "\\x" : width == 4 ? "\\u" : "\\U") + out;
}

}  // namespace

std::string as_literal(std::string_view text) {
  const bool doubled =
      text.find('\'') != std::string_view::npos && text.find('"') == std::string_view::npos;
  const char quote = doubled ? '"' : '\'';
  std::string out(1, quote);
  while (!text.empty()) {
    const auto [code_point, width] = read_utf8(text);
    const bool unseen = std::ranges::any_of(UNSEEN, [c = code_point](const auto& range) {
      return c >= range.first && c <= range.second;
    });
    if (width == 0) {
      out += escaped(static_cast<unsigned char>(text.front()));
    } else if (unseen) {
      out += escaped(code_point);
    } else {
      if (text.front() == quote || text.front() == '\\') out += '\\';
      out.append(text.substr(0, width));
    }
    text.remove_prefix(std::max(width, std::size_t{1}));
  }
  return out + quote;
}

}  // namespace tovren_mapstead::engines::http
