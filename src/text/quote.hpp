// Quotes text of a server in an error message.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// How much of a reply is read for a quotation.
inline constexpr std::size_t QUOTED_BYTES = std::size_t{64} << 10U;

/// Returns at most `max_chars` characters from the start of `text`, on one line, in valid UTF-8,
/// without control characters and without secrets. `text` may have been cut anywhere: also removes
/// a possible start of a secret at its end. Reads at most QUOTED_BYTES, or eight bytes per
/// character if that is more.
[[nodiscard]] TOVREN_EXPORT std::string quote(std::string_view text, const Secrets& secrets,
                                              std::size_t max_chars = QUOTED_BYTES);

/// Converts a policy's `detail_chars`, which may be negative, for `quote`.
[[nodiscard]] constexpr std::size_t quoted_chars(int detail_chars) noexcept {
  return detail_chars > 0 ? static_cast<std::size_t>(detail_chars) : 0;
}

}  // namespace tovren_mapstead::engines::http
