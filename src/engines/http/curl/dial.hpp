// Opens TCP connections to hosts with several addresses. Knows neither HTTP nor libcurl.
#pragma once

#include <string>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/curl/names.hpp"
#include "engines/http/curl/socket.hpp"

namespace tovren_mapstead::engines::http {

/// A connected socket and the text of its peer's address.
struct TcpConnection {
  Socket socket;
  std::string address;
};

/// Connects to the first address of `service` that answers. An attempt that hangs delays the next
/// address by 250 ms (RFC 8305, section 5); an attempt that fails does not delay it. Throws
/// TransportError if all addresses fail, and what `watch` throws.
[[nodiscard]] TcpConnection dial(Names& names, const Service& service, Watch& watch);

}  // namespace tovren_mapstead::engines::http
