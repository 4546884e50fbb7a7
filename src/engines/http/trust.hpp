// The certificate authorities that TLS connections are checked against.
#pragma once

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

  Trust(const Trust&) = delete;
  Trust& operator=(const Trust&) = delete;
  ~Trust() { X509_STORE_free(_store); }

  /// The authorities, owned by this object. Throws a TransportError if they cannot be read.
  X509_STORE* store();

 private:
  const std::string _file;
  std::once_flag _read;
  X509_STORE* _store = nullptr;
};

}  // namespace tovren_mapstead::engines::http
