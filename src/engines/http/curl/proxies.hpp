// The proxies that the environment names.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tovren_mapstead/engines/http/secrets.hpp"

namespace tovren_mapstead::engines::http {

/// One proxy.
struct Proxy {
  std::string url;  ///< As the variable holds it, credential included.
  std::string host;
  std::uint16_t port = 0;
  bool over_tls = false;  ///< The proxy itself is spoken to over TLS.
  Secrets secrets;        ///< Its password and whatever else shows it.
};

/// The proxies of the variables http_proxy, https_proxy, all_proxy and no_proxy, in the letter case
/// and with the meaning that libcurl gives them. Immutable.
class Proxies {
 public:
  /// Reads the environment, once, so that calls do not race with a thread that changes it.
  Proxies();

  /// Returns the proxy for a host, in lower case, or nothing for a direct connection. `scheme`:
  /// "http" or "https". Throws TransportError if the variable holds no usable URL.
  [[nodiscard]] std::optional<Proxy> find(std::string_view scheme, std::string_view host) const;

 private:
  [[nodiscard]] bool is_exempt(std::string_view host) const;

  std::string _http;
  std::string _https;
  std::vector<std::string> _exempt;
};

}  // namespace tovren_mapstead::engines::http
