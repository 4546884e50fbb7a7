// UTF-8 (RFC 3629), and the halves of surrogate pairs that servers leave in it.
#pragma once

#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Returns whether `text` is valid UTF-8.
[[nodiscard]] TOVREN_EXPORT bool is_utf8(std::string_view text) noexcept;

/// Joins the halves of surrogate pairs that `JsonValue::append_text` left in `text` and puts U+FFFD
/// in place of those that stay alone. Leaves valid UTF-8 as it is.
TOVREN_EXPORT void join_halves(std::string& text);

}  // namespace tovren_mapstead::engines::http
