// Name look-ups that can be abandoned. Knows neither HTTP nor libcurl.
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

/// An address of a host with its port.
struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;
};

/// A TCP service, and how error texts name it.
struct Service {
  std::string host;  ///< A name, or an address without brackets.
  std::uint16_t port = 0;
  std::string whom;       ///< For example "https://host.example", or "the proxy to ...".
  bool is_proxy = false;  ///< Named by the environment, not by a URL.
};

/// Looks names up in threads of its own, one for each name: whoever waits for the same name shares
/// the look-up, and one that hangs holds one thread, however many calls have given it up.
/// Safe from any thread.
class Names {
 public:
  /// Returns the addresses of the host, at least one, in the system's order of preference.
  /// Throws TransportError, and what `watch` throws.
  [[nodiscard]] std::vector<Address> find(const Service& service, const Watch& watch);

 private:
  struct Lookup;

  std::shared_ptr<Lookup> begin(const std::string& host);

  std::mutex _mutex;
  std::map<std::string, std::shared_ptr<Lookup>> _under_way;
};

}  // namespace tovren_mapstead::engines::http
