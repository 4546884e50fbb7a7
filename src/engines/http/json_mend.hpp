// Texts that are JSON by RFC 8259 but that simdjson refuses as a whole: for a surrogate escape
// without its other half (section 8.2) or a number out of range (section 6). They are rewritten to
// texts that it reads, and what was done to their strings is undone when those are taken out.
#pragma once

#include <string>
#include <string_view>

namespace tovren_mapstead::engines::http {

/// `text` with each half of a surrogate pair marked and each number out of range as a string of its
/// digits. What is not JSON stays that way.
[[nodiscard]] std::string mend(std::string_view text);

/// Appends a string out of a mended text as it was before; halves in the three bytes of their
/// number.
void append_unmended(std::string& out, std::string_view text);

}  // namespace tovren_mapstead::engines::http
