#include "engines/http/curl/route.hpp"

#include <algorithm>
#include <utility>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/curl/url.hpp"
#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {

std::string origin_of(std::string_view url) {
  const std::size_t colon = url.find("://");
  const std::size_t start = colon == std::string_view::npos ? 0 : colon + 3;
  const auto ends = [](char c) { return c == '/' || c == '?' || c == '#' || c == '\\'; };
  std::string_view authority = url.substr(start);
  authority = {authority.begin(), std::ranges::find_if(authority, ends)};
  const std::size_t at = authority.find_last_of('@');
  if (at != std::string_view::npos) authority.remove_prefix(at + 1);
  // Text that is no port may be the start of a password with an unescaped slash.
  const std::size_t bracket = authority.find(']');  // of an IPv6 address
  const std::size_t port = std::min(
      authority.find(':', bracket == std::string_view::npos ? 0 : bracket), authority.size());
  if (authority.find_first_not_of("0123456789", port + 1) != std::string_view::npos) {
    authority = authority.substr(0, port);
  }
  return lower_case(url.substr(0, start)).append(authority);
}

Route route_to(const std::string& url, const Proxies& proxies) {
  const std::string origin = origin_of(url);
  const UrlParts parts = parts_of(parse_url_to(origin, url));
  const bool tls = parts.scheme == "https";
  if (!tls && parts.scheme != "http") {
    throw TransportError("only http and https are supported, not " + origin + "; check the URL",
                         false);
  }
  Route route{
      .origin = origin, .tls = tls, .proxy = proxies.find(parts.scheme, parts.host), .service = {}};
  if (route.proxy) {
    route.service = {.host = route.proxy->host,
                     .port = route.proxy->port,
                     .label = "the proxy to " + origin,
                     .is_proxy = true};
  } else {
    route.service = {
        .host = parts.host, .port = parts.port.value_or(tls ? 443 : 80), .label = origin};
  }
  return route;
}

}  // namespace tovren_mapstead::engines::http
