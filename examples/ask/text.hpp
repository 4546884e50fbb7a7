// Makes text safe for a terminal and for JSON.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ask {

enum class Lines { keep, join };

/// Returns `text` with U+FFFD for each control character, which a terminal would obey, and for each
/// byte that is not UTF-8. `Lines::keep` keeps line feeds and tabs, and leaves carriage returns
/// out.
std::string printable(std::string_view text, Lines lines);

/// Returns the longest start of `text` that does not end inside a character, nor between the halves
/// of a surrogate pair.
std::string_view whole_characters(std::string_view text);

/// Returns a number as "11,800".
std::string grouped(std::size_t number);

}  // namespace ask
