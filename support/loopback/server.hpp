// A small HTTP/1.1 server on the loopback interface whose every move is scripted: the tests, the
// benchmarks and the demo talk to it through real sockets. Not for the open network.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace loopback {

/// One request as it arrived; header names in lower case.
struct Request {
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;
  std::string body;
};

/// Bytes to and from one peer, over TCP or TLS.
class Wire;

/// One request and the means to answer it. Lives while the handler runs.
class Exchange {
 public:
  Exchange(Wire& wire, Request request) : _wire(wire), _request(std::move(request)) {}

  [[nodiscard]] const Request& request() const noexcept { return _request; }

  /// Sends bytes as they are. False once the peer has gone.
  bool send(std::string_view bytes);

  /// Sends a whole reply. `headers`: complete lines, each with its CRLF.
  void reply(int status, std::string_view body, std::string_view type = "application/json",
             std::string_view headers = "");

  /// Starts a chunked event stream, sends one chunk of it, ends it.
  void start_stream(std::string_view type = "text/event-stream");
  bool chunk(std::string_view bytes);
  void end_stream();

  /// Says nothing until the peer closes or the server stops; then the connection is closed.
  void stall();

  /// Lets time pass, less if the server stops.
  void pause(std::chrono::milliseconds period);

  /// Closes the connection after this exchange; `cut` without close_notify, `reset` with a RST.
  void close();
  void cut();
  void reset();

  /// Sends a TLS close_notify, or a new session ticket, on a connection that stays open.
  void close_notify();
  void ticket();

 private:
  Wire& _wire;
  Request _request;
};

/// What a server over TLS shows of itself. All are signed by themselves.
enum class Certificate { good, expired, of_another_host };

struct Options {
  bool tls = false;
  Certificate certificate = Certificate::good;
  /// Plays with each connection, TLS agreed, before its first request is read, if there is any.
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
  int _listener = -1;
  std::uint16_t _port = 0;
  std::atomic<bool> _stopping = false;
  std::atomic<int> _connections = 0;
  std::atomic<int> _requests = 0;
  std::mutex _mutex;
  std::list<Peer> _peers;
  std::thread _acceptor;
};

/// A port on which nobody answers: to connect hangs, or, if `connects`, all that comes after.
class BlackHole {
 public:
  /// `host`: an address of this machine; `port` 0: a free one.
  explicit BlackHole(bool connects = false, std::uint32_t host = 0x7F000001,
                     std::uint16_t port = 0);
  BlackHole(const BlackHole&) = delete;
  BlackHole& operator=(const BlackHole&) = delete;
  ~BlackHole();

  /// "127.0.0.1:PORT"
  [[nodiscard]] std::string address() const;

 private:
  int _listener = -1;
  std::vector<int> _fillers;
  std::uint16_t _port = 0;
};

/// The URL of a port that refuses connections.
[[nodiscard]] std::string refused_url();

}  // namespace loopback
