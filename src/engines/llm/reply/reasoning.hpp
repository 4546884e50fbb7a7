// Removing the deliberation that reasoning models put in front of their answer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tovren_mapstead::engines::llm {

inline constexpr std::string_view THINK_OPEN = "<think>";
inline constexpr std::string_view THINK_CLOSE = "</think>";

/// Returns the byte offsets, ascending, of `tag` in `content`, in any letter case and outside code
/// fences and inline code. `tag` is in lower case. Linear in `content`.
[[nodiscard]] std::vector<std::size_t> _tag_positions(std::string_view content,
                                                      std::string_view tag);

/// Returns what follows the last closing tag outside code; without one, what precedes the first
/// opening tag; without either, everything. Removes white space at both ends. Linear in `content`.
[[nodiscard]] std::string _strip_reasoning(std::string content);

}  // namespace tovren_mapstead::engines::llm
