// The certificate authorities that TLS connections are checked against.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <openssl/x509_vfy.h>

namespace tovren_mapstead::engines::http {

/// Certificate authorities, read once and shared by all connections of a transport: reading them
/// takes longer than all the rest of a handshake. Safe from any thread.
class Trust {
 public:
  /// `file`: a PEM file of the authorities to trust; empty: the system's.
  explicit Trust(std::string file) : _file(std::move(file)) {}

  /// The authorities, for as long as this object lives. Throws a TransportError if they cannot be
  /// read.
  X509_STORE* store();

 private:
  struct Free {
    void operator()(X509_STORE* store) const noexcept { X509_STORE_free(store); }
  };

  const std::string _file;
  std::once_flag _read;
  std::unique_ptr<X509_STORE, Free> _store;
};

}  // namespace tovren_mapstead::engines::http
