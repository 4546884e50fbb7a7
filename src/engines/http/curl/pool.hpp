// Keeps idle connections for reuse by the next request to the same origin.
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/curl/connection.hpp"
#include "engines/http/curl/transfer.hpp"

namespace tovren_mapstead::engines::http {

/// Thread-safe. Its lock is held for a few instructions, never during I/O.
class Pool {
 public:
  /// Returns an idle connection to `origin`, or null if there is none. May wait up to 50 ms for the
  /// end of an earlier reply, and throws what `watch` throws meanwhile.
  std::unique_ptr<Connection> take(const std::string& origin, const Watch& watch);

  /// Keeps an idle connection. Ignores null.
  void put(std::unique_ptr<Connection> connection) noexcept;

  /// Keeps a transfer whose reply is no longer read, for its connection.
  void drain_later(std::unique_ptr<Transfer> transfer) noexcept;

  /// Closes all connections to `origin`. Call it after one of them was dead.
  void drop(const std::string& origin) noexcept;

 private:
  struct Draining {
    std::unique_ptr<Transfer> transfer;
    Clock::time_point since;
  };

  struct Candidate {
    std::list<Draining> draining;  // at most one
    bool crowded = false;          // whether more transfers to the origin are draining
  };

  std::unique_ptr<Connection> take_idle(const std::string& origin);
  Candidate take_draining(const std::string& origin);
  void add(std::unique_ptr<Connection> connection, std::unique_ptr<Transfer> transfer) noexcept;

  std::mutex _mutex;
  std::list<std::unique_ptr<Connection>> _idle;  // last used at the end
  std::list<Draining> _draining;                 // the newest at the end
};

}  // namespace tovren_mapstead::engines::http
