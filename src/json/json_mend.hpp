// Texts that simdjson refuses. It refuses some that are JSON by RFC 8259: those with a surrogate
// escape without its other half (section 8.2) or a number out of range (section 6). They are
// rewritten to texts that it reads, and the change is undone when a string is taken out.
#pragma once

#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Returns `text` with each half of a surrogate pair marked and each number out of range as a string
/// of its digits. A text that is not JSON does not become JSON.
[[nodiscard]] std::string mend(std::string_view text);

/// Appends a string of a mended text as it was before. A half becomes the three bytes of its number.
void append_unmended(std::string& out, std::string_view text);

/// Why a text cannot be read as JSON.
enum class JsonFault { cut_short, too_deep, wrong };

/// Returns what is wrong with a text that a JsonReader cannot read: the end is missing, or it is
/// nested too deeply, or it is not JSON.
[[nodiscard]] TOVREN_EXPORT JsonFault fault_of(std::string_view text);

}  // namespace tovren_mapstead::engines::http
