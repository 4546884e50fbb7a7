// A peer's bytes, over TCP or TLS, in waits short enough to notice that the server stops.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <openssl/ssl.h>

#include "loopback/server.hpp"

namespace loopback {

/// How a connection is closed; `polite` is a close_notify, where there is TLS, and a FIN.
enum class Farewell { polite, fin, rst };

class Wire {
 public:
  /// Owns `socket`. `context` may be null: no TLS.
  Wire(int socket, SSL_CTX* context, const std::atomic<bool>& stopping);
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;
  ~Wire();

  /// The TLS handshake, if there is any to make.
  bool greet();

  /// The next request, or nothing when the peer has gone or speaks no HTTP.
  std::optional<Request> next_request();

  bool send(std::string_view bytes);

  /// Waits for the peer to close.
  void stall();

  void close(Farewell farewell = Farewell::polite);

  /// Do nothing without TLS.
  void close_notify();
  void ticket();

  [[nodiscard]] bool closed() const noexcept { return _closed; }

  [[nodiscard]] bool stopping() const noexcept { return _stopping; }

 private:
  bool fill();
  bool wait(short events);

  struct Free {
    void operator()(SSL* ssl) const noexcept { SSL_free(ssl); }
  };

  int _socket;
  std::unique_ptr<SSL, Free> _ssl;
  const std::atomic<bool>& _stopping;
  std::string _buffer;
  bool _closed = false;
};

}  // namespace loopback
