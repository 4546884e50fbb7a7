#include "engines/http/pool.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <thread>

namespace tovren_mapstead::engines::http {
namespace {

constexpr std::size_t MAX_IDLE = 64;               // some 22 KB each, more with TLS
constexpr std::chrono::seconds MAX_IDLE_AGE{110};  // libcurl uses none again after 118 s

// How long a request waits for the end of the reply before it: as long as nobody notices. A server
// whose ends come later than that gets a second connection, and if both are waiting for theirs, the
// wait may be as long as it would take to open a third to a server far away.
constexpr std::chrono::milliseconds PATIENCE{4};
constexpr std::chrono::milliseconds CROWDED_PATIENCE{50};

// A reply whose end has not come by now has none.
constexpr std::chrono::seconds MAX_TAIL_AGE{1};

// libcurl closes an HTTP/1.1 connection whose body was not read to its end, and the end marker of a
// stream usually comes before the terminating chunk.
void settle(Connection& connection, Clock::time_point end, const Watch& watch) {
  while (connection.under_way() && !connection.drain() && connection.under_way()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return;
    watch.check("waiting for a connection to", connection.origin());
    connection.poll(std::min(left, watch.patience()));
  }
}

}  // namespace

std::unique_ptr<Connection> Pool::take(const std::string& origin, const Watch& watch) {
  Found found = find(origin);
  if (!found.idle.empty()) {
    auto& connection = found.idle.front().connection;
    const auto end = Clock::now() + (found.crowded ? CROWDED_PATIENCE : PATIENCE);
    settle(*connection, std::min(end, found.idle.front().since + MAX_TAIL_AGE), watch);
    if (connection->in_good_order()) return std::move(connection);
    if (connection->under_way() && !found.crowded) {
      const std::lock_guard lock(_mutex);
      _idle.splice(_idle.begin(), found.idle);
    }
  }
  return std::make_unique<Connection>(_trust);
}

Pool::Found Pool::find(const std::string& origin) {
  const std::lock_guard lock(_mutex);
  const auto leads_there = [&](bool under_way) {
    return [&origin, under_way](const Idle& idle) {
      return idle.connection->under_way() == under_way && idle.connection->origin() == origin;
    };
  };
  Found found;
  // Of those that are ready the one that this thread has used, which has its memory, and the peer's
  // thread, near; else the one used last.
  const auto own = [&](const Idle& idle) {
    return idle.user == std::this_thread::get_id() && leads_there(false)(idle);
  };
  auto ready = std::find_if(_idle.rbegin(), _idle.rend(), own);
  if (ready == _idle.rend()) {
    ready = std::find_if(_idle.rbegin(), _idle.rend(), leads_there(false));
  }
  if (ready != _idle.rend()) {
    found.idle.splice(found.idle.end(), _idle, std::next(ready).base());
    return found;
  }
  const auto first = std::ranges::find_if(_idle, leads_there(true));
  if (first == _idle.end()) return found;
  found.crowded = std::any_of(std::next(first), _idle.end(), leads_there(true));
  found.idle.splice(found.idle.end(), _idle, first);
  return found;
}

void Pool::put(std::unique_ptr<Connection> connection) noexcept {
  std::list<Idle> stale;  // closed after the lock is gone
  try {
    connection->save_memory();
    const auto now = Clock::now();
    std::list<Idle> fresh;
    fresh.push_back(
        {.connection = std::move(connection), .since = now, .user = std::this_thread::get_id()});
    const std::lock_guard lock(_mutex);
    _idle.splice(_idle.end(), fresh);
    for (auto next = _idle.begin(); next != _idle.end();) {
      const auto idle = next++;
      const auto max_age = idle->connection->under_way() ? MAX_TAIL_AGE : MAX_IDLE_AGE;
      if (now - idle->since > max_age) stale.splice(stale.end(), _idle, idle);
    }
    if (_idle.size() > MAX_IDLE) stale.splice(stale.end(), _idle, _idle.begin());
  } catch (const std::exception&) {  // out of memory: the connection is closed instead
  }
}

}  // namespace tovren_mapstead::engines::http
