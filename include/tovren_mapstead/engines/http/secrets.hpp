// Keeping credentials out of texts. Knows nothing of requests and replies.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Strings that must not occur in any text the engine makes. Empty ones are ignored.
using Secrets = std::vector<std::string>;

/// Header names and values, as they go onto the wire.
using Headers = std::map<std::string, std::string>;

/// `text` with every occurrence of every secret masked, as it stands and in any spelling that JSON
/// strings (`\/`, `\u002d`) and URLs (`%2d`) give it, up to four of them one inside the other.
/// Afterwards no secret occurs in the result, whatever the secrets are: the mask is one that holds
/// none of them, and where every mask would, the secrets are cut out instead.
/// Linear in the text for any fixed set of secrets. Safe from any thread.
[[nodiscard]] TOVREN_EXPORT std::string redact(std::string_view text, const Secrets& secrets);

/// The credentials in `headers`: what follows the scheme of an `Authorization` or
/// `Proxy-Authorization` (all of it where there is no scheme), the value of `Api-Key`, `X-Api-Key`
/// and their like, and of every cookie. Header names in any letter case. Safe from any thread.
[[nodiscard]] TOVREN_EXPORT Secrets secrets_of(const Headers& headers);

}  // namespace tovren_mapstead::engines::http
