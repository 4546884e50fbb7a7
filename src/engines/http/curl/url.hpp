// The parts of a URL, as libcurl reads it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tovren_mapstead::engines::http {

struct UrlParts {
  std::string scheme;        ///< In lower case.
  std::string user;          ///< With escapes undone; empty: none.
  std::string password;      ///< With escapes undone; empty: none.
  std::string raw_password;  ///< As it is spelt.
  std::string host;          ///< In lower case and punycode, without brackets, with an IPv6 zone.
  std::optional<std::uint16_t> port;  ///< As given.
};

/// Returns the parts of `url`; one without a scheme counts as http. On failure nothing, and
/// `reason` says why.
[[nodiscard]] std::optional<UrlParts> parse_url(const std::string& url, std::string& reason);

}  // namespace tovren_mapstead::engines::http
