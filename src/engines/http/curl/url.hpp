// Splits a URL into its parts, as libcurl does.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <curl/curl.h>

namespace tovren_mapstead::engines::http {

struct UrlParts {
  std::string scheme;        ///< In lower case.
  std::string user;          ///< Unescaped; may be empty.
  std::string password;      ///< Unescaped; may be empty.
  std::string raw_password;  ///< With its escapes.
  std::string host;          ///< In lower case and punycode, without brackets, with an IPv6 zone.
  std::optional<std::uint16_t> port;  ///< Absent if the URL has none.
};

struct FreeUrl {
  void operator()(CURLU* url) const noexcept { curl_url_cleanup(url); }
};

/// A URL in libcurl's own form.
using Url = std::unique_ptr<CURLU, FreeUrl>;

/// Reads a URL. One without a scheme counts as http. On failure returns null and sets `reason`.
[[nodiscard]] Url parse_url(const std::string& text, std::string& reason);

/// Reads the URL of a request, whose origin an error text shows. Throws TransportError if it is
/// malformed.
[[nodiscard]] Url parse_url_to(const std::string& origin, const std::string& text);

/// Returns the parts of a URL that was parsed.
[[nodiscard]] UrlParts parts_of(const Url& url);

}  // namespace tovren_mapstead::engines::http
