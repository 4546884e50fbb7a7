#include "engines/http/curl/trust.hpp"

#include <new>

#include <openssl/err.h>

#include "tovren_mapstead/engines/http/transport.hpp"

namespace tovren_mapstead::engines::http {

std::shared_ptr<X509_STORE> Trust::store() {
  const std::lock_guard lock(_mutex);
  if (!_store) _store = read();
  return _store;
}

void Trust::forget() noexcept {
  const std::lock_guard lock(_mutex);
  _store.reset();
}

std::shared_ptr<X509_STORE> Trust::read() const {
  std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
  if (!store) throw std::bad_alloc();
  // Trusts an intermediate authority by itself, as libcurl does.
  X509_STORE_set_flags(store.get(), X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
  const bool done = _file.empty() ? X509_STORE_set_default_paths(store.get()) == 1
                                  : X509_STORE_load_file(store.get(), _file.c_str()) == 1;
  ERR_clear_error();  // libcurl reads this queue, which belongs to the thread
  if (!done) {
    const std::string where = _file.empty() ? "the system's folders" : _file;
    throw TransportError(
        "cannot read the trusted certificates in " + where + "; check SSL_CERT_FILE", false);
  }
  return store;
}

}  // namespace tovren_mapstead::engines::http
