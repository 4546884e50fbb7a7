#include "engines/http/curl/url.hpp"

#include <charconv>
#include <memory>
#include <new>
#include <string_view>

#include <curl/curl.h>

#include "tovren_mapstead/engines/http/errors.hpp"

#include "text/characters.hpp"
#include "text/literal.hpp"

namespace tovren_mapstead::engines::http {
namespace {

CURLUcode checked(CURLUcode code) {
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  return code;
}

// Returns a part; empty if it is missing.
std::string part_of(const Url& url, CURLUPart part, unsigned flags = 0) {
  char* text = nullptr;
  if (checked(curl_url_get(url.get(), part, &text, flags)) != CURLUE_OK) return "";
  const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
  return text;
}

}  // namespace

Url parse_url(const std::string& text, std::string& reason) {
  Url url(curl_url());
  if (!url) throw std::bad_alloc();
  const CURLUcode code = checked(curl_url_set(url.get(), CURLUPART_URL, text.c_str(),
                                              CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME));
  if (code == CURLUE_OK) return url;
  reason = curl_url_strerror(code);
  return nullptr;
}

Url parse_url_to(const std::string& origin, const std::string& text) {
  std::string reason;
  if (Url url = parse_url(text, reason)) return url;
  throw TransportError("malformed URL: " + as_literal(origin) + " (" + reason + "); check the URL",
                       false);
}

UrlParts parts_of(const Url& url) {
  UrlParts parts{.scheme = lower_case(part_of(url, CURLUPART_SCHEME)),
                 .user = part_of(url, CURLUPART_USER, CURLU_URLDECODE),
                 .password = part_of(url, CURLUPART_PASSWORD, CURLU_URLDECODE),
                 .raw_password = part_of(url, CURLUPART_PASSWORD),
                 .host = lower_case(part_of(url, CURLUPART_HOST, CURLU_PUNYCODE)),
                 .port = std::nullopt};
  if (parts.host.starts_with('[') && parts.host.ends_with(']')) {
    parts.host = parts.host.substr(1, parts.host.size() - 2);
    const std::string zone = part_of(url, CURLUPART_ZONEID);
    if (!zone.empty()) parts.host.append("%").append(zone);
  }
  if (const std::string port = part_of(url, CURLUPART_PORT); !port.empty()) {  // libcurl checks it
    std::from_chars(port.data(), port.data() + port.size(), parts.port.emplace());
  }
  return parts;
}

}  // namespace tovren_mapstead::engines::http
