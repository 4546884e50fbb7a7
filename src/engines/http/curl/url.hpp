// Splits a URL into its parts, as libcurl does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tovren_mapstead::engines::http {

struct UrlParts {
  std::string scheme;        ///< In lower case.
  std::string user;          ///< Unescaped; may be empty.
  std::string password;      ///< Unescaped; may be empty.
  std::string raw_password;  ///< With its escapes.
  std::string host;          ///< In lower case and punycode, without brackets, with an IPv6 zone.
  std::optional<std::uint16_t> port;  ///< Absent if the URL has none.
};

/// Returns the parts of `url`. A URL without a scheme counts as http. On failure returns nothing
/// and sets `reason`.
[[nodiscard]] std::optional<UrlParts> parse_url(const std::string& url, std::string& reason);

}  // namespace tovren_mapstead::engines::http
