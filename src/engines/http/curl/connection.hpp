// One kept-alive connection at rest: a pair of libcurl handles, an easy and a multi one, and the
// socket that they keep open. What happens on it during a request is a Transfer.
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

namespace tovren_mapstead::engines::http {

/// Throw a TransportError unless libcurl has done what it was asked for.
void require(CURLcode code);
void require(CURLMcode code);

/// Where a connection leads.
struct Route {
  std::string origin;  ///< Scheme, host and port, as error texts show them.
  bool tls = false;
  std::optional<Proxy> proxy;
  Service service;  ///< What the socket is connected to: the host, or the proxy.
};

/// One thread at a time; nothing of it is shared with another.
class Connection {
 public:
  /// `tcp` is connected to the route's service. TLS and a proxy's tunnel are made with the first
  /// request.
  Connection(Route route, TcpConnection tcp, std::shared_ptr<Trust> trust);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Closes the connection.
  ~Connection() = default;

  /// Looks whether the next request may go out on it: its server has not ended it, and nothing came
  /// that no request has asked for. Reads what TLS sends of itself, such as session tickets. One
  /// system call. Only after a transfer that has ended well.
  [[nodiscard]] bool at_rest() noexcept;

  [[nodiscard]] const Route& route() const noexcept { return _route; }

  /// Until when the server can be expected to keep it open while it is idle.
  Clock::time_point idle_until{};

  /// The thread that used it last, which has its memory near.
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

  void set_headers(Headers wanted);
  [[nodiscard]] bool tls_at_rest();

  const Route _route;
  const std::shared_ptr<Trust> _trust;
  Socket _socket;  // until libcurl has taken it
  const int _descriptor;
  const std::unique_ptr<CURLM, Close> _multi;
  const std::unique_ptr<CURL, Clean> _easy;  // not in the multi handle while at rest
  List _address;                             // of the service, for libcurl in place of a look-up
  List _lines;                               // the headers, as libcurl wants them
  Headers _headers;                          // the same
  SSL* _tls = nullptr;  // libcurl's; null without TLS, and for TLS inside the TLS of a proxy
  std::array<char, CURL_ERROR_SIZE> _error{};  // libcurl's text
  std::exception_ptr _thrown;                  // by a callback
  bool _used = false;                          // a whole reply has come over it
};

}  // namespace tovren_mapstead::engines::http
