// White space, all of Unicode's.
#pragma once

#include <string_view>

namespace tovren_mapstead::engines::llm {

/// `text` without the white space at both ends.
[[nodiscard]] std::string_view trim(std::string_view text) noexcept;

}  // namespace tovren_mapstead::engines::llm
