// A value shown to its user so that what is wrong with it can be seen.
#pragma once

#include <string>
#include <string_view>

namespace tovren_mapstead::engines::llm {

/// `text` between single quotes, or between double quotes if it holds a single one and no double
/// one; those quotes, backslashes and what cannot be seen are escaped.
[[nodiscard]] std::string quoted(std::string_view text);

}  // namespace tovren_mapstead::engines::llm
