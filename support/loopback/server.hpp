// A small HTTP/1.1 server on the loopback interface. Everything that it does is scripted. Tests,
// benchmarks and the demo talk to it over real sockets. Not for the open network.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <openssl/ssl.h>

namespace loopback {

/// One request as it arrived; header names in lower case.
struct Request {
  std::string method{};
  std::string target{};
  std::map<std::string, std::string> headers{};
  std::string body{};
};

/// A chunk of a chunked body.
[[nodiscard]] std::string chunk(std::string_view bytes);

/// A connection, over TCP or TLS, and the request on it that is being answered.
class Exchange {
 public:
  /// Owns `socket`. `context` may be null: no TLS. All waits end when `stopping` is set.
  Exchange(int socket, SSL_CTX* context, const std::atomic<bool>& stopping);
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange();

  [[nodiscard]] const Request& request() const noexcept { return _request; }

  /// Sends bytes as they are. Returns false once the peer has gone.
  bool send(std::string_view bytes);

  /// Sends a whole reply. `headers`: complete lines, each with its CRLF.
  void reply(int status, std::string_view body, std::string_view type = "application/json",
             std::string_view headers = "");

  /// Starts a chunked event stream, sends one chunk of it, ends it.
  void start_stream();

  bool chunk(std::string_view bytes) { return send(loopback::chunk(bytes)); }

  void end_stream() { send("0\r\n\r\n"); }

  /// Sends nothing until the peer closes or the server stops; then the connection is closed.
  void stall();

  /// Lets time pass, less if the server stops.
  void pause(std::chrono::milliseconds period);

  /// Reads up to 16 KiB of the next request. Returns false once the peer has gone.
  bool read_some();

  /// Closes the connection; `cut` without close_notify, `reset` with a RST.
  void close();
  void cut();
  void reset();

  /// Sends a TLS close_notify, or a new session ticket, on a connection that stays open.
  void close_notify();
  void ticket();

 private:
  friend class Server;

  bool handshake();
  bool next_request();
  template <class Act>
  long attempt(Act act);

  int _socket;
  std::shared_ptr<SSL> _ssl;
  const std::atomic<bool>& _stopping;
  std::string _buffer;
  Request _request;
  bool _closed = false;
};

struct Options {
  bool tls = false;
  /// Called for each connection, TLS agreed, before its first request is read, if it is set.
  std::function<void(Exchange&)> greeting{};
};

/// Serves every connection on a thread of its own until it is destroyed.
class Server {
 public:
  using Handler = std::function<void(Exchange&)>;

  /// `handler` is called for every request, on the thread of its connection, several at once.
  explicit Server(Handler handler, Options options = {});
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();

  [[nodiscard]] std::uint16_t port() const noexcept { return _port; }

  /// "http://127.0.0.1:PORT", with https "https://localhost:PORT".
  [[nodiscard]] std::string url() const;

  /// How many connections have been accepted, and requests begun.
  [[nodiscard]] int connections() const noexcept { return _connections; }

  [[nodiscard]] int requests() const noexcept { return _requests; }

  /// The certificate that a client has to trust, in PEM form; empty without TLS.
  [[nodiscard]] const std::string& certificate() const noexcept { return _certificate; }

 private:
  struct Tls;

  // A connection and the thread that serves it.
  struct Peer {
    std::atomic<bool> gone = false;
    std::jthread thread{};
  };

  void accept_all();
  void serve(int socket);

  Handler _handler;
  Handler _greeting;
  std::unique_ptr<Tls> _tls;
  std::string _certificate;
  std::uint16_t _port = 0;
  int _listener = -1;
  std::atomic<bool> _stopping = false;
  std::atomic<int> _connections = 0;
  std::atomic<int> _requests = 0;
  std::list<Peer> _peers;
  std::thread _acceptor;
};

/// A port on which nobody answers: to connect hangs.
class BlackHole {
 public:
  /// `host`: an address of this machine; `port` 0: a free one.
  explicit BlackHole(std::uint32_t host = 0x7F000001, std::uint16_t port = 0);
  BlackHole(const BlackHole&) = delete;
  BlackHole& operator=(const BlackHole&) = delete;
  ~BlackHole();

  /// "127.0.0.1:PORT"
  [[nodiscard]] std::string address() const;

 private:
  std::vector<int> _sockets;
  std::uint16_t _port = 0;
};

/// The URL of a port that refuses connections until the process ends.
[[nodiscard]] std::string refused_url();

}  // namespace loopback
