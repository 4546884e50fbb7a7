// A kept-alive connection: a libcurl easy handle, its multi handle and their socket. A Transfer is
// one request on it.
#pragma once

#include <array>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <curl/curl.h>
#include <openssl/ssl.h>

#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/curl/dial.hpp"
#include "engines/http/curl/proxies.hpp"
#include "engines/http/curl/trust.hpp"
#include "engines/http/curl/url.hpp"

namespace tovren_mapstead::engines::http {

/// Throw bad_alloc if libcurl ran out of memory, TransportError for any other error code.
void require(CURLcode code);
void require(CURLMcode code);

/// The target of a connection.
struct Route {
  std::string origin;  ///< Scheme, host and port, as error texts show them.
  bool tls = false;
  std::optional<Proxy> proxy;
  Service service;  ///< The peer of the socket: the host, or the proxy.
};

class Transfer;

/// For one thread at a time.
class Connection {
 public:
  /// Takes `tcp`, which is connected to `route.service`. The first transfer makes the tunnel
  /// through a proxy and the TLS handshake.
  Connection(Route route, TcpConnection tcp, std::shared_ptr<Trust> trust);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Closes the connection.
  ~Connection() = default;

  /// Returns whether the next request can use the connection: the peer has not closed it, and no
  /// unexpected bytes have arrived. Reads messages of TLS itself, such as session tickets. Costs
  /// one system call. Call it only after a transfer that succeeded.
  [[nodiscard]] bool is_idle() noexcept;

  [[nodiscard]] const Route& route() const noexcept { return _route; }

  /// When the server may close the connection if it stays idle.
  Clock::time_point idle_until{};

  /// The thread that used it last, whose processor caches its memory.
  std::thread::id user{};

 private:
  friend class Transfer;
  struct Callbacks;

  struct Close {
    void operator()(CURLM* multi) const noexcept;
  };

  struct Clean {
    void operator()(CURL* easy) const noexcept;
  };

  struct Free {
    void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }

    void operator()(BIO* bio) const noexcept { BIO_free(bio); }
  };

  using List = std::unique_ptr<curl_slist, Free>;

  template <class Value>
  void set(CURLoption option, Value value) {
    require(curl_easy_setopt(_easy.get(), option, value));
  }

  void set_url(const std::string& wanted);
  void set_headers(Headers wanted);
  [[nodiscard]] bool is_tls_idle();

  const Route _route;
  const std::shared_ptr<Trust> _trust;
  Socket _socket;  // until libcurl takes it
  const int _descriptor;
  const std::unique_ptr<CURLM, Close> _multi;
  const std::unique_ptr<CURL, Clean> _easy;  // in the multi handle only during a transfer
  Transfer* _transfer = nullptr;             // the last one
  List _address;     // of the service, so that libcurl does not resolve its name; until connected
  std::string _url;  // of the last request
  Url _parsed_url;   // the same for libcurl
  List _lines;       // the headers for libcurl
  Headers _headers;  // the same
  SSL* _tls = nullptr;  // libcurl's; null without TLS, and for TLS inside a proxy's TLS
  std::array<char, CURL_ERROR_SIZE> _error{};  // text of libcurl
  std::exception_ptr _thrown;                  // exception of a callback
  bool _used = false;                          // a complete reply was received on it
};

}  // namespace tovren_mapstead::engines::http
