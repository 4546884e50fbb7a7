#include "engines/http/pool.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>

namespace tovren_mapstead::engines::http {
namespace {

constexpr std::size_t MAX_IDLE = 64;               // some 22 KB each, more with TLS
constexpr std::chrono::seconds MAX_IDLE_AGE{110};  // libcurl uses none again after 118 s

// How long a request waits for the end of the reply before it.
constexpr std::chrono::milliseconds DRAIN_PATIENCE{4};

// libcurl closes an HTTP/1.1 connection whose body was not read to its end, and the end marker of a
// stream usually comes before the terminating chunk. By now that should have come, too.
void settle(Connection& connection) {
  const auto end = Clock::now() + DRAIN_PATIENCE;
  while (connection.under_way() && !connection.drain() && connection.under_way()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return;
    connection.poll(left);
  }
}

}  // namespace

std::unique_ptr<Connection> Pool::take(const std::string& origin) {
  std::unique_ptr<Connection> connection = find(origin);
  if (connection) settle(*connection);
  if (connection && connection->in_good_order()) return connection;
  return std::make_unique<Connection>(_trust);
}

std::unique_ptr<Connection> Pool::find(const std::string& origin) {
  const std::lock_guard lock(_mutex);
  const auto last = [&](bool under_way) {
    return std::find_if(_idle.rbegin(), _idle.rend(), [&](const Idle& idle) {
      return idle.connection->under_way() == under_way && idle.connection->origin() == origin;
    });
  };
  auto found = last(false);
  if (found == _idle.rend()) found = last(true);
  if (found == _idle.rend()) return nullptr;
  std::unique_ptr<Connection> connection = std::move(found->connection);
  _idle.erase(std::next(found).base());
  return connection;
}

void Pool::put(std::unique_ptr<Connection> connection) noexcept {
  std::list<Idle> stale;  // closed after the lock is gone
  try {
    const auto now = Clock::now();
    std::list<Idle> fresh;
    fresh.push_back({.connection = std::move(connection), .since = now});
    const std::lock_guard lock(_mutex);
    _idle.splice(_idle.end(), fresh);
    while (_idle.size() > MAX_IDLE || now - _idle.front().since > MAX_IDLE_AGE) {
      stale.splice(stale.end(), _idle, _idle.begin());
    }
  } catch (const std::exception&) {  // out of memory: the connection is closed instead
  }
}

}  // namespace tovren_mapstead::engines::http
