// Writes a value for its user so that characters show that do not belong there.
#pragma once

#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Returns `text` between single quotes, or between double quotes if it holds a single one and no
/// double one. Those quotes, backslashes and characters that cannot be seen are escaped.
[[nodiscard]] TOVREN_EXPORT std::string as_literal(std::string_view text);

}  // namespace tovren_mapstead::engines::http
