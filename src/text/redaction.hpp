// Redacts a text that may end in the middle of a secret.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/secrets.hpp"

#include "text/unescaped.hpp"

namespace tovren_mapstead::engines::http {

/// How much of a secret's start may remain at the end of a text that was cut.
inline constexpr std::size_t SHOWN_START = 4;

/// Works like the public `redact`. If `text` was cut, also removes a start of a secret at its end
/// that is longer than SHOWN_START.
[[nodiscard]] std::string redact(std::string_view text, const Secrets& plain, Following following);

}  // namespace tovren_mapstead::engines::http
