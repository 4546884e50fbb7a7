// Redacts credentials from texts. Does not know requests and replies.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Strings that must not occur in any text of the engine. Empty ones are ignored.
using Secrets = std::vector<std::string>;

/// Header names and values, as they are sent.
using Headers = std::map<std::string, std::string>;

/// Returns `text` with every occurrence of every secret masked, also if escaped as in JSON strings
/// (`\/`, `\u002d`) or URLs (`%2d`), up to four levels deep. No secret occurs in the result: the
/// mask contains none of them, and if every mask would, the secrets are removed instead. Takes
/// linear time in the length of `text` for fixed secrets. Thread-safe.
[[nodiscard]] TOVREN_EXPORT std::string redact(std::string_view text, const Secrets& secrets);

/// Returns the credentials in `headers`: the text after the scheme of `Authorization` and
/// `Proxy-Authorization` (the whole value without a scheme), the values of `Api-Key`, `X-Api-Key`
/// and similar headers, and of every cookie. Ignores the letter case of names. Thread-safe.
[[nodiscard]] TOVREN_EXPORT Secrets secrets_of(const Headers& headers);

}  // namespace tovren_mapstead::engines::http
