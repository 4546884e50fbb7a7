// Where the connections of a request lead.
#pragma once

#include <string>
#include <string_view>

#include "engines/http/curl/connection.hpp"
#include "engines/http/curl/proxies.hpp"

namespace tovren_mapstead::engines::http {

/// Returns scheme, host and port of a URL: what decides whether a connection can serve again, and
/// what an error text may show, since user information, path and query can hold credentials.
[[nodiscard]] std::string origin_of(std::string_view url);

/// Returns the route to `url`, by way of a proxy if the environment names one. Throws
/// TransportError for a URL, or a proxy's URL, that cannot be used.
[[nodiscard]] Route route_to(const std::string& url, const Proxies& proxies);

}  // namespace tovren_mapstead::engines::http
