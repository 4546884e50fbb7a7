// Redaction of a text that may break off in the middle of a secret.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/secrets.hpp"

#include "text/unescaped.hpp"

namespace tovren_mapstead::engines::http {

/// So much of a secret's start may show where a text was cut: it gives nothing away.
inline constexpr std::size_t SHOWN_START = 4;

/// As the public `redact`; for a text that was cut, a longer start of a secret at its end goes,
/// too.
[[nodiscard]] std::string redact(std::string_view text, const Secrets& plain, Tail tail);

}  // namespace tovren_mapstead::engines::http
