// The certificate authorities that TLS trusts.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <openssl/x509_vfy.h>

namespace tovren_mapstead::engines::http {

/// Certificate authorities. Reads them when first needed, and shares them between the connections
/// of a transport, because that takes longer than the rest of a handshake. Thread-safe.
class Trust {
 public:
  /// `file` is a PEM file of trusted authorities; empty for those of the system.
  explicit Trust(std::string file) : _file(std::move(file)) {}

  /// Returns the authorities. Throws TransportError if they cannot be read.
  std::shared_ptr<X509_STORE> store();

  /// Makes the next connection read them again. Call it after a failed handshake: the authorities
  /// may have changed, or memory may have run out while they were read.
  void forget() noexcept;

 private:
  [[nodiscard]] std::shared_ptr<X509_STORE> read() const;

  const std::string _file;
  std::mutex _mutex;
  std::shared_ptr<X509_STORE> _store;
};

}  // namespace tovren_mapstead::engines::http
