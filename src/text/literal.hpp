// Quotes a value for error texts, so that invisible characters show.
#pragma once

#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Returns `text` between single quotes, or between double quotes if it holds single quotes only.
/// Escapes those quotes, backslashes and invisible characters.
[[nodiscard]] TOVREN_EXPORT std::string as_literal(std::string_view text);

}  // namespace tovren_mapstead::engines::http
