#include "engines/http/curl/url.hpp"

#include <charconv>
#include <memory>
#include <new>
#include <string_view>

#include <curl/curl.h>

#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

class Url {
 public:
  Url() {
    _handle.reset(curl_url());
    if (!_handle) throw std::bad_alloc();
  }

  CURLUcode set(const std::string& url) {
    return check(curl_url_set(_handle.get(), CURLUPART_URL, url.c_str(),
                              CURLU_NON_SUPPORT_SCHEME | CURLU_GUESS_SCHEME));
  }

  // Returns a part; empty if it is missing.
  std::string get(CURLUPart part, unsigned flags = 0) {
    char* text = nullptr;
    if (check(curl_url_get(_handle.get(), part, &text, flags)) != CURLUE_OK) return "";
    const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
    return text;
  }

 private:
  static CURLUcode check(CURLUcode code) {
    if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
    return code;
  }

  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> _handle{nullptr, curl_url_cleanup};
};

}  // namespace

std::optional<UrlParts> parse_url(const std::string& url, std::string& reason) {
  Url parsed;
  if (const CURLUcode code = parsed.set(url); code != CURLUE_OK) {
    reason = curl_url_strerror(code);
    return std::nullopt;
  }
  UrlParts parts{.scheme = lower_case(parsed.get(CURLUPART_SCHEME)),
                 .user = parsed.get(CURLUPART_USER, CURLU_URLDECODE),
                 .password = parsed.get(CURLUPART_PASSWORD, CURLU_URLDECODE),
                 .raw_password = parsed.get(CURLUPART_PASSWORD),
                 .host = lower_case(parsed.get(CURLUPART_HOST, CURLU_PUNYCODE)),
                 .port = std::nullopt};
  if (parts.host.starts_with('[') && parts.host.ends_with(']')) {
    parts.host = parts.host.substr(1, parts.host.size() - 2);
    const std::string zone = parsed.get(CURLUPART_ZONEID);
    if (!zone.empty()) parts.host.append("%").append(zone);
  }
  if (const std::string port = parsed.get(CURLUPART_PORT); !port.empty()) {  // libcurl checks it
    std::from_chars(port.data(), port.data() + port.size(), parts.port.emplace());
  }
  return parts;
}

}  // namespace tovren_mapstead::engines::http
