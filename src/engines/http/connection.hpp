// One kept-alive connection and the transfer that it is in. Built on libcurl, which its
// implementation alone knows.
#pragma once

#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/trust.hpp"

namespace tovren_mapstead::engines::http {

/// Scheme, host and port of a URL: what decides whether a connection can serve again, and what an
/// error text may show, since user information, path and query can hold credentials.
[[nodiscard]] std::string origin_of(std::string_view url);

/// A pair of libcurl handles, an easy and a multi one, and the connection that they keep open.
/// One thread at a time; nothing of it is shared with another.
class Connection {
 public:
  explicit Connection(std::shared_ptr<Trust> trust);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Closes the connection.
  ~Connection();

  /// Begins a transfer. None may be under way.
  void start(Request request, std::string origin);

  /// Does what can be done without waiting.
  void perform();

  /// Whether it has probably left nothing to do, so that the next step is to `poll`.
  [[nodiscard]] bool has_to_wait() const noexcept { return _has_to_wait; }

  /// Waits until there is something to do, `longest` at most; says whether there is.
  bool poll(std::chrono::milliseconds longest);

  /// Lets the body flow into `sink`, some 32 KB until the next call; null holds it back.
  void pour_into(std::string* sink);

  /// Reads past what is left of the body without waiting; says whether that ended it in good order.
  bool drain();

  /// Throws a TransportError if the transfer has failed, and what a libcurl callback could not
  /// throw.
  void check() const;

  [[nodiscard]] bool under_way() const noexcept { return _under_way; }

  [[nodiscard]] bool in_good_order() const noexcept { return !_under_way && !_failed; }

  [[nodiscard]] bool head_complete() const noexcept { return _head_complete; }

  [[nodiscard]] const Head& head() const noexcept { return _head; }

  [[nodiscard]] const std::string& origin() const noexcept { return _origin; }

  /// For the JSON of the reply.
  [[nodiscard]] JsonReader& reader() noexcept { return _reader; }

  /// Gives back what an idle connection is not to hold. Ends the life of what was read.
  void save_memory();

 private:
  struct Handles;
  struct Callbacks;

  void resume();
  std::size_t take_body(std::string_view bytes);
  void take_head_line(std::string_view line);

  const std::shared_ptr<Trust> _trust;
  std::unique_ptr<Handles> _handles;
  JsonReader _reader;
  std::string _origin;
  std::string _body;  // of the request; libcurl reads it in place
  Head _head;
  std::size_t _head_bytes = 0;
  bool _head_complete = false;
  bool _under_way = false;
  bool _failed = false;
  bool _begun = false;   // the request may have gone out
  bool _broken = false;  // after that, before a reply
  bool _paused = false;
  bool _draining = false;
  bool _has_to_wait = false;
  std::size_t _taken = 0;  // of the body since it last performed
  std::size_t _drained = 0;
  std::size_t _room = 0;         // bytes until the body is held back
  std::string* _sink = nullptr;  // where the body goes
  std::string _early;            // body that came before there was a sink
  std::exception_ptr _thrown;    // by a callback
};

}  // namespace tovren_mapstead::engines::http
