// Trims Unicode white space.
#pragma once

#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

namespace detail {

[[nodiscard]] TOVREN_EXPORT std::string_view trim_ends(std::string_view text) noexcept;

}  // namespace detail

/// Returns `text` without white space at both ends. Inline, because most lines of a stream have
/// none.
[[nodiscard]] inline std::string_view trim(std::string_view text) noexcept {
  const auto visible = [](char c) { return c > ' ' && c <= '~'; };
  if (text.empty() || (visible(text.front()) && visible(text.back()))) return text;
  return detail::trim_ends(text);
}

}  // namespace tovren_mapstead::engines::http
