// Connections at rest, ready for the next request to where they lead.
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/curl/connection.hpp"
#include "engines/http/curl/transfer.hpp"

namespace tovren_mapstead::engines::http {

/// Safe from any thread; its lock is held for a few instructions, never during I/O.
class Pool {
 public:
  /// Returns a connection to `origin` that is at rest, or null if there is none. May wait some
  /// milliseconds for the end of an earlier reply; throws what `watch` throws meanwhile.
  std::unique_ptr<Connection> take(const std::string& origin, const Watch& watch);

  /// Keeps a connection; null does nothing.
  void put(std::unique_ptr<Connection> connection) noexcept;

  /// Keeps a transfer whose reply nobody reads any more, until its end has come.
  void park(std::unique_ptr<Transfer> transfer) noexcept;

  /// Closes all that leads to `origin`: one connection there has turned out to be dead.
  void drop(const std::string& origin) noexcept;

 private:
  struct Parked {
    std::unique_ptr<Transfer> transfer;
    Clock::time_point since;
  };

  struct Tail {
    std::list<Parked> parked;  // one, or none
    bool crowded = false;      // more of the origin's transfers wait for their ends
  };

  std::unique_ptr<Connection> take_idle(const std::string& origin);
  Tail take_tail(const std::string& origin);

  std::mutex _mutex;
  std::list<std::unique_ptr<Connection>> _idle;  // the one put away last at the end
  std::list<Parked> _parked;                     // likewise
};

}  // namespace tovren_mapstead::engines::http
