// Connections at rest, ready for the next request to where they lead.
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "tovren_mapstead/engines/http/retry.hpp"

#include "engines/http/connection.hpp"
#include "engines/http/trust.hpp"

namespace tovren_mapstead::engines::http {

/// Hands every request a connection of its own. Safe from any thread; its lock is held for a few
/// instructions, never during I/O.
class Pool {
 public:
  /// `ca_file`: as for Trust.
  explicit Pool(std::string ca_file) : _trust(std::make_shared<Trust>(std::move(ca_file))) {}

  /// A connection for a request to `origin`, one that leads there already if there is any. Reads
  /// past the rest of an earlier reply, for a few milliseconds at most.
  std::unique_ptr<Connection> take(const std::string& origin);

  /// Keeps a connection, at rest or with the rest of a reply still to read past.
  void put(std::unique_ptr<Connection> connection) noexcept;

 private:
  struct Idle {
    std::unique_ptr<Connection> connection;
    Clock::time_point since;
  };

  std::unique_ptr<Connection> find(const std::string& origin);

  const std::shared_ptr<Trust> _trust;
  std::mutex _mutex;
  std::list<Idle> _idle;  // the one used last at the end
};

}  // namespace tovren_mapstead::engines::http
