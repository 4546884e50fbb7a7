// Rewrites texts that simdjson rejects although they are JSON by RFC 8259: a surrogate escape
// without its other half (section 8.2) and a number out of range (section 6). The rewriting is
// undone when a string is read.
#pragma once

#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Returns `text` with each single half of a surrogate pair marked, and each number out of range as
/// a string of its digits. A text that is not JSON does not become JSON.
[[nodiscard]] std::string mend(std::string_view text);

/// Appends a string of a mended text as it was before. Half of a surrogate pair becomes WTF-8.
void append_unmended(std::string& out, std::string_view text);

/// Why a text is not readable as JSON.
enum class JsonFault { cut_short, too_deep, wrong };

/// Returns why a JsonReader cannot read `text`: its end is missing, it is nested too deeply, or it
/// is not JSON.
[[nodiscard]] TOVREN_EXPORT JsonFault fault_of(std::string_view text);

}  // namespace tovren_mapstead::engines::http
