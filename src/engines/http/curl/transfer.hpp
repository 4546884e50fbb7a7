// One request and its reply on a connection, driven by the thread of the call.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/curl/connection.hpp"

namespace tovren_mapstead::engines::http {

/// Owns its connection until it has ended. One thread at a time.
class Transfer {
 public:
  /// Begins to send `request`. `watch` bounds the tunnel through a proxy, which is made before the
  /// head of the reply has come; it has to live until then.
  Transfer(std::unique_ptr<Connection> connection, Request request, const Watch& watch);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// Gives the transfer up, and with it the connection, unless that has been released.
  ~Transfer();

  /// Does what can be done without waiting. Returns whether bytes have come or gone.
  bool perform();

  /// Whether the last `perform` has probably left nothing to do, so that the next step is to
  /// `poll`.
  [[nodiscard]] bool has_to_wait() const noexcept { return _has_to_wait; }

  /// Waits up to `longest` until there is something to do.
  void poll(std::chrono::milliseconds longest);

  /// Lets the body flow into `sink`, some 32 KB until the next call; null holds it back.
  void pour_into(std::string* sink);

  /// Reads past what is left of the body without waiting. Returns whether the transfer has ended.
  bool drain();

  /// Throws the TransportError of a transfer that has failed, and what a callback could not throw.
  void check() const;

  [[nodiscard]] bool ended() const noexcept { return _result.has_value(); }

  [[nodiscard]] bool head_complete() const noexcept { return _phase >= Phase::body; }

  [[nodiscard]] const Head& head() const noexcept { return _head; }

  [[nodiscard]] const Route& route() const noexcept { return _connection->route(); }

  /// Whether an earlier reply came over the connection, and nothing of this one: the connection may
  /// have been dead before the request.
  [[nodiscard]] bool suspects_connection() const noexcept {
    return _connection->_used && _head_bytes == 0;
  }

  /// Whether the connection turned out to be dead before anything was sent.
  [[nodiscard]] bool unsent() const noexcept {
    return ended() && _phase == Phase::connecting && _connection->_used && !_connection->_thrown;
  }

  /// Gives back the request of a transfer that is `unsent`.
  [[nodiscard]] Request take_request();

  /// Returns the connection of a transfer that has ended well, to be used again after a look, or
  /// null if it is closed.
  [[nodiscard]] std::unique_ptr<Connection> release() noexcept;

 private:
  struct Callbacks;

  // In this order; the tail is what nobody wants to read any more.
  enum class Phase { connecting, sent, body, tail };

  void end(CURLcode result);
  void resume();
  std::size_t take_body(std::string_view bytes);
  void take_head_line(std::string_view line);

  std::unique_ptr<Connection> _connection;
  Request _request;  // libcurl reads its body in place
  const Watch& _watch;
  Phase _phase = Phase::connecting;
  std::optional<CURLcode> _result;  // of the transfer that has ended
  bool _open = false;               // the connection is, after the end
  bool _excess = false;             // bytes came that belong to no reply
  bool _paused = false;
  bool _has_to_wait = false;
  bool _waited = false;  // for the socket, since it last performed
  Head _head;
  std::size_t _head_bytes = 0;
  double _idle_s;          // that the server keeps the connection, as far as is known
  std::size_t _taken = 0;  // of the reply since it last performed
  std::size_t _drained = 0;
  std::size_t _room;             // bytes until the body is held back
  std::uint64_t _moved = 0;      // over the socket, when last counted
  std::string* _sink = nullptr;  // where the body goes
  std::string _early;            // body that came before there was a sink
};

}  // namespace tovren_mapstead::engines::http
