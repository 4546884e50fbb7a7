// One request and its reply on a connection. The thread of the call drives it.
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

/// Owns its connection until `release`. For one thread at a time.
class Transfer {
 public:
  /// Starts to send `request`. `watch` bounds the set-up of a tunnel through a proxy; it must live
  /// until the head of the reply is complete.
  Transfer(std::unique_ptr<Connection> connection, Request request, const Watch& watch);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// Cancels the transfer and closes the connection, unless that was released.
  ~Transfer();

  /// Makes progress without waiting. Returns whether bytes were sent or received.
  bool perform();

  /// Returns whether to `poll` before the next `perform`, which would probably make no progress.
  [[nodiscard]] bool has_to_wait() const noexcept { return _has_to_wait; }

  /// Waits up to `longest` until `perform` can make progress.
  void poll(std::chrono::milliseconds longest);

  /// Appends the body to `sink` from now on, and pauses after about 48 KB until the next call. Null
  /// buffers the body instead.
  void set_sink(std::string* sink);

  /// Discards the rest of the body without waiting. Returns whether the transfer has ended.
  bool drain();

  /// Throws the TransportError of a failed transfer, or the exception of a callback.
  void check() const;

  [[nodiscard]] bool ended() const noexcept { return _result.has_value(); }

  [[nodiscard]] bool head_complete() const noexcept { return _phase >= Phase::body; }

  [[nodiscard]] const Head& head() const noexcept { return _head; }

  [[nodiscard]] const Route& route() const noexcept { return _connection->route(); }

  /// Returns whether libcurl's time limit for the handshakes has passed.
  [[nodiscard]] bool timed_out() const noexcept { return _result == CURLE_OPERATION_TIMEDOUT; }

  /// Returns whether the connection may have been dead before the request: it carried an earlier
  /// reply, but nothing of this one.
  [[nodiscard]] bool suspects_connection() const noexcept {
    return _connection->_used && _head_bytes == 0;
  }

  /// Returns whether the connection was found dead before anything was sent.
  [[nodiscard]] bool unsent() const noexcept {
    return ended() && _phase == Phase::connecting && _connection->_used && !_connection->_thrown;
  }

  /// Returns the request of a transfer that is `unsent`.
  [[nodiscard]] Request take_request();

  /// Returns the connection of a transfer that succeeded, or null if it cannot be reused. Check
  /// `Connection::is_idle` before reuse.
  [[nodiscard]] std::unique_ptr<Connection> release() noexcept;

 private:
  struct Callbacks;

  // In this order. Draining discards the rest of the body.
  enum class Phase { connecting, sent, body, draining };

  void end(CURLcode result);
  void resume();
  std::size_t take_body(std::string_view bytes);
  void take_head_line(std::string_view line);

  std::unique_ptr<Connection> _connection;
  Request _request;  // libcurl reads its body in place
  const Watch& _watch;
  Phase _phase = Phase::connecting;
  std::optional<CURLcode> _result;  // absent until the transfer ends
  bool _open = false;               // after the end: whether the connection can be reused
  bool _chunked = false;            // the body is sent in chunks
  bool _excess = false;             // bytes arrived after the last chunk
  bool _paused = false;
  bool _has_to_wait = false;
  bool _waited = false;  // whether the socket became ready since the last perform
  Head _head;
  std::size_t _head_bytes = 0;
  double _idle_s;             // how long the server is expected to keep the connection
  std::size_t _received = 0;  // bytes of the reply in the last perform
  std::size_t _drained = 0;
  std::size_t _room;             // bytes of the body until the transfer pauses
  std::uint64_t _moved = 0;      // over the socket, at the last count
  std::string* _sink = nullptr;  // where the body goes
  std::string _buffered;         // body that arrived without a sink
};

}  // namespace tovren_mapstead::engines::http
