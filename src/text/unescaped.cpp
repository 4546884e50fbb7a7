#include "text/unescaped.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Returns the value of a hexadecimal digit; 16 for any other character.
constexpr std::uint32_t digit_of(char c) noexcept {
  const char lower = lower_case(c);
  if (lower >= 'a' && lower <= 'f') return static_cast<std::uint32_t>(lower - 'a') + 10;
  return c >= '0' && c <= '9' ? static_cast<std::uint32_t>(c - '0') : 16;
}

// Returns the byte of the percent escape at the start of `text`.
Character read_percent(std::string_view text) noexcept {
  if (text.size() < 3) return {};
  const std::uint32_t high = digit_of(text[1]);
  const std::uint32_t low = digit_of(text[2]);
  if (high > 15 || low > 15) return {};
  return {.code_point = high * 16 + low, .width = 3};
}

// Returns whether `text`, which begins like an escape, may be the start of a longer one.
bool is_half(std::string_view text) noexcept {
  constexpr std::string_view UNIT = "\\u0000";
  if (text[0] == '%') return text.size() < 3;
  const std::string_view low =
      text.size() < UNIT.size() || !is_high_half(read_escape(text).code_point)
          ? text
          : text.substr(UNIT.size());
  return low.size() < UNIT.size() && low.substr(0, 2) == UNIT.substr(0, low.size()).substr(0, 2);
}

}  // namespace

bool Unescaped::assign(std::string_view source, Following following) {
  _text.clear();
  _jumps.clear();
  _source_end = source.size();
  std::size_t copied = 0;
  for (std::size_t at = 0;; ++at) {
    const auto* const sign = std::find_if(source.begin() + at, source.end(),
                                          [](char c) { return c == '\\' || c == '%'; });
    if (sign == source.end()) break;
    at = static_cast<std::size_t>(sign - source.begin());
    const std::string_view rest(sign, source.end());
    const bool half = following != Following::nothing && is_half(rest);
    const auto [code_point, width] = half           ? Character{.width = rest.size()}
                                     : *sign == '%' ? read_percent(rest)
                                                    : read_escape(rest);
    if (width == 0) continue;
    _text.append(source.substr(copied, at - copied));
    const std::size_t to = _text.size();
    if (half) {
      if (following == Following::more) _source_end = at;
    } else if (*sign == '%' || code_point < 0x80) {
      _text += static_cast<char>(code_point);
    } else {
      append_utf8(_text, code_point);
    }
    _jumps.push_back({.to = to, .end = _text.size(), .from = at, .width = width});
    copied = at + width;
    at = copied - 1;
  }
  _text.append(source.substr(copied));
  return !_jumps.empty();
}

void Unescaped::map_to_source(std::vector<Span>& spans) const {
  auto after = _jumps.begin();
  const auto map = [&](std::size_t at, bool past) {
    while (after != _jumps.end() && after->to <= at) ++after;
    if (after == _jumps.begin()) return at + (past ? 1 : 0);
    const Jump& jump = *std::prev(after);
    if (at < jump.end) return jump.from + (past ? jump.width : 0);
    return jump.from + jump.width + (at - jump.end) + (past ? 1 : 0);
  };
  for (Span& span : spans) {
    span.begin = map(span.begin, false);
    span.end = span.end == _text.size() ? _source_end : map(span.end - 1, true);
  }
}

}  // namespace tovren_mapstead::engines::http
