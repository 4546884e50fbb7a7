// Foreign text made fit for an error message.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Enough of a reply to quote from.
inline constexpr std::size_t QUOTED_BYTES = std::size_t{64} << 10U;

/// At most `max_chars` characters of the start of `text`, on one line, in valid UTF-8, without
/// control characters and without secrets. `text` may have been cut anywhere: what may be the start
/// of a secret at its end goes, too. Reads QUOTED_BYTES of it, or eight bytes for each character if
/// that is more, however long it is.
[[nodiscard]] TOVREN_EXPORT std::string quote(std::string_view text, const Secrets& secrets,
                                              std::size_t max_chars);

/// How many characters of a reply an error under this policy may quote.
[[nodiscard]] inline std::size_t detail_limit(const RetryPolicy& policy) noexcept {
  return policy.detail_chars > 0 ? static_cast<std::size_t>(policy.detail_chars) : 0;
}

}  // namespace tovren_mapstead::engines::http
