#include "text/trim.hpp"

#include <algorithm>
#include <array>
#include <cstddef>

namespace tovren_mapstead::engines::http {
namespace {

// The ASCII characters with the property White_Space, and the four information separators, which
// end lines and fields.
constexpr bool is_ascii_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r') || (c >= '\x1C' && c <= '\x1F');
}

constexpr std::array<std::string_view, 19> BEYOND_ASCII{
    "\u0085", "\u00A0", "\u1680", "\u2000", "\u2001", "\u2002", "\u2003",
    "\u2004", "\u2005", "\u2006", "\u2007", "\u2008", "\u2009", "\u200A",
    "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"};

// Returns the width of one white-space character at the start or the end of `text`; 0 without one.
std::size_t space_at(std::string_view text, bool at_start) noexcept {
  const char c = at_start ? text.front() : text.back();
  if (static_cast<unsigned char>(c) < 0x80) return is_ascii_space(c) ? 1 : 0;
  const auto* const space = std::ranges::find_if(BEYOND_ASCII, [&](std::string_view candidate) {
    return at_start ? text.starts_with(candidate) : text.ends_with(candidate);
  });
  return space == BEYOND_ASCII.end() ? 0 : space->size();
}

}  // namespace

std::string_view detail::trim_ends(std::string_view text) noexcept {
  std::size_t width = 0;
  while (!text.empty() && (width = space_at(text, true)) > 0) text.remove_prefix(width);
  while (!text.empty() && (width = space_at(text, false)) > 0) text.remove_suffix(width);
  return text;
}

}  // namespace tovren_mapstead::engines::http
