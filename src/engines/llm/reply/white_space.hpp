// White space, all of Unicode's.
#pragma once

#include <string_view>

namespace tovren_mapstead::engines::llm {

namespace detail {

[[nodiscard]] std::string_view trim_ends(std::string_view text) noexcept;

}  // namespace detail

/// `text` without the white space at both ends. Without a call where there is none, as in most
/// lines of a stream.
[[nodiscard]] inline std::string_view trim(std::string_view text) noexcept {
  const auto visible = [](char c) { return c > ' ' && c <= '~'; };
  if (text.empty() || (visible(text.front()) && visible(text.back()))) return text;
  return detail::trim_ends(text);
}

}  // namespace tovren_mapstead::engines::llm
