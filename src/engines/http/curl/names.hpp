// Resolves host names, with look-ups that can be abandoned. Knows neither HTTP nor libcurl.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sys/socket.h>

#include "tovren_mapstead/engines/http/transport.hpp"

namespace tovren_mapstead::engines::http {

/// An address and a port.
struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;
};

/// A TCP service.
struct Service {
  std::string host;  ///< A name, or an address without brackets.
  std::uint16_t port = 0;
  std::string label;      ///< For error texts: "https://host.example", or "the proxy to ...".
  bool is_proxy = false;  ///< Whether the environment names it.
};

/// Resolves each name on a thread of its own. Calls share the look-up of a name, so a look-up that
/// hangs costs one thread, however many calls have given up on it. Thread-safe.
class Names {
 public:
  /// Returns at least one address of the host, in the system's order of preference. Throws
  /// TransportError if there is none, and what `watch` throws.
  [[nodiscard]] std::vector<Address> find(const Service& service, const Watch& watch);

 private:
  struct Lookup;

  std::shared_ptr<Lookup> begin(const std::string& host);

  std::mutex _mutex;
  std::map<std::string, std::shared_ptr<Lookup>> _pending;
};

}  // namespace tovren_mapstead::engines::http
