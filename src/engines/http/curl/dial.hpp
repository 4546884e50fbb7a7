// Opening a TCP connection to a host with several addresses. Knows neither HTTP nor libcurl.
#pragma once

#include <string>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/curl/names.hpp"
#include "engines/http/curl/socket.hpp"

namespace tovren_mapstead::engines::http {

/// A connected socket and the address at its other end, in text.
struct TcpConnection {
  Socket socket;
  std::string address;
};

/// Connects to the first address of `service` that answers. An address that hangs holds the next
/// one back for a quarter of a second (RFC 8305, section 5), one that refuses not at all. Throws
/// TransportError if none can be reached, and what `watch` throws.
[[nodiscard]] TcpConnection dial(Names& names, const Service& service, Watch& watch);

}  // namespace tovren_mapstead::engines::http
