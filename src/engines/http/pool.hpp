// Connections at rest, ready for the next request to where they lead.
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/connection.hpp"
#include "engines/http/trust.hpp"

namespace tovren_mapstead::engines::http {

/// Hands every request a connection of its own. Safe from any thread; its lock is held for a few
/// instructions, never during I/O.
class Pool {
 public:
  /// `ca_file`: as for Trust.
  explicit Pool(std::string ca_file) : _trust(std::make_shared<Trust>(std::move(ca_file))) {}

  /// A connection for a request to `origin`, one that leads there already if there is any. May wait
  /// some milliseconds for the end of an earlier reply; throws as `watch` does meanwhile.
  std::unique_ptr<Connection> take(const std::string& origin, const Watch& watch);

  /// Keeps a connection, at rest or with the rest of a reply still to read past.
  void put(std::unique_ptr<Connection> connection) noexcept;

 private:
  struct Idle {
    std::unique_ptr<Connection> connection;
    Clock::time_point since;
    std::thread::id user;
  };

  struct Found {
    std::list<Idle> idle;  // one, or none
    bool crowded = false;  // more of the origin's connections wait for the end of a reply
  };

  Found find(const std::string& origin);

  const std::shared_ptr<Trust> _trust;
  std::mutex _mutex;
  std::list<Idle> _idle;  // the one put away last at the end
};

}  // namespace tovren_mapstead::engines::http
