// The certificate authorities that TLS connections are checked against.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <openssl/x509_vfy.h>

namespace tovren_mapstead::engines::http {

/// Certificate authorities, read when first needed and shared by all connections of a transport:
/// reading them takes longer than all the rest of a handshake. Safe from any thread.
class Trust {
 public:
  /// `file`: a PEM file of the authorities to trust; empty: the system's.
  explicit Trust(std::string file) : _file(std::move(file)) {}

  /// Returns the authorities. Throws a TransportError if they cannot be read.
  std::shared_ptr<X509_STORE> store();

  /// Lets the next connection read them again: a handshake has failed, perhaps for authorities that
  /// were changed since, or read while memory was short.
  void forget() noexcept;

 private:
  [[nodiscard]] std::shared_ptr<X509_STORE> read() const;

  const std::string _file;
  std::mutex _mutex;
  std::shared_ptr<X509_STORE> _store;
};

}  // namespace tovren_mapstead::engines::http
