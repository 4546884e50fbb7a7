// Finds the route of a request: its origin and its proxy.
#pragma once

#include <string>
#include <string_view>

#include "engines/http/curl/connection.hpp"
#include "engines/http/curl/proxies.hpp"

namespace tovren_mapstead::engines::http {

/// Returns scheme, host and port of a URL. Requests of one origin share connections. Error texts
/// show the origin only, because user information, path and query can hold credentials.
[[nodiscard]] std::string origin_of(std::string_view url);

/// Returns the route to `url`, through a proxy if the environment names one. Throws TransportError
/// if the URL, or that of the proxy, is malformed or not supported.
[[nodiscard]] Route route_to(const std::string& url, const Proxies& proxies);

}  // namespace tovren_mapstead::engines::http
