// Finds the proxy for a host in the variables of the environment.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tovren_mapstead/engines/http/secrets.hpp"

namespace tovren_mapstead::engines::http {

struct Proxy {
  std::string url;  ///< As in the variable, with the credential.
  std::string host;
  std::uint16_t port = 0;
  bool over_tls = false;  ///< Whether the connection to the proxy uses TLS.
  Secrets secrets;        ///< Its password, also in the forms that are sent.
};

/// The values of the variables http_proxy, https_proxy, all_proxy and no_proxy. Reads the same
/// letter cases as libcurl, with the same meaning. Immutable.
class Proxies {
 public:
  /// Reads the environment once, so that calls do not race with threads that change it.
  Proxies();

  /// Returns the proxy for `host`, or nothing for a direct connection. `scheme` is "http" or
  /// "https", `host` in lower case. Throws TransportError if the URL of the proxy is invalid.
  [[nodiscard]] std::optional<Proxy> find(std::string_view scheme, std::string_view host) const;

 private:
  [[nodiscard]] bool is_exempt(std::string_view host) const;

  std::string _http;
  std::string _https;
  std::vector<std::string> _exempt;
};

}  // namespace tovren_mapstead::engines::http
