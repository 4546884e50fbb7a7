#include "engines/llm/reply/white_space.hpp"

#include <algorithm>
#include <array>
#include <cstddef>

namespace tovren_mapstead::engines::llm {
namespace {

// The characters with the property White_Space, and the four information separators, which end a
// line or a field where they are used at all.
constexpr bool is_ascii_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r') || (c >= '\x1C' && c <= '\x1F');
}

constexpr std::array<std::string_view, 19> BEYOND_ASCII{
    "\u0085", "\u00A0", "\u1680", "\u2000", "\u2001", "\u2002", "\u2003",
    "\u2004", "\u2005", "\u2006", "\u2007", "\u2008", "\u2009", "\u200A",
    "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"};

constexpr bool is_ascii(char c) {
  return static_cast<unsigned char>(c) < 0x80;
}

std::size_t leading(std::string_view text) noexcept {
  if (is_ascii(text.front())) return is_ascii_space(text.front()) ? 1 : 0;
  const auto* const space = std::ranges::find_if(
      BEYOND_ASCII, [text](std::string_view candidate) { return text.starts_with(candidate); });
  return space == BEYOND_ASCII.end() ? 0 : space->size();
}

std::size_t trailing(std::string_view text) noexcept {
  if (is_ascii(text.back())) return is_ascii_space(text.back()) ? 1 : 0;
  const auto* const space = std::ranges::find_if(
      BEYOND_ASCII, [text](std::string_view candidate) { return text.ends_with(candidate); });
  return space == BEYOND_ASCII.end() ? 0 : space->size();
}

}  // namespace

std::string_view detail::trim_ends(std::string_view text) noexcept {
  std::size_t width = 0;
  while (!text.empty() && (width = leading(text)) > 0) text.remove_prefix(width);
  while (!text.empty() && (width = trailing(text)) > 0) text.remove_suffix(width);
  return text;
}

}  // namespace tovren_mapstead::engines::llm
