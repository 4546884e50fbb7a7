#include "engines/http/curl/pool.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <thread>
#include <utility>

namespace tovren_mapstead::engines::http {
namespace {

constexpr std::size_t MAX_IDLE = 64;  // some 22 KB each, more with TLS

// How long a request waits for the end of the reply before it: as long as nobody notices. A server
// whose ends come later than that gets a second connection, and if both are waiting for theirs, the
// wait may be as long as it would take to open a third to a server far away.
constexpr std::chrono::milliseconds PATIENCE{4};
constexpr std::chrono::milliseconds CROWDED_PATIENCE{50};

// A reply whose end has not come by now has none.
constexpr std::chrono::seconds MAX_TAIL_AGE{1};

// libcurl closes an HTTP/1.1 connection whose body was not read to its end, and the end marker of a
// stream usually comes before the terminating chunk.
void settle(Transfer& transfer, Clock::time_point end, const Watch& watch) {
  while (!transfer.drain()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return;
    watch.check("waiting for a connection to", transfer.route().origin);
    transfer.poll(std::min(left, watch.patience()));
  }
}

// The elements of `list` that `chosen` is true for, to be destroyed without the lock: that closes
// connections.
template <class Element, class Chosen>
std::list<Element> cut_out(std::list<Element>& list, Chosen chosen) noexcept {
  std::list<Element> out;
  for (auto next = list.begin(); next != list.end();) {
    const auto element = next++;
    if (chosen(*element)) out.splice(out.end(), list, element);
  }
  return out;
}

}  // namespace

std::unique_ptr<Connection> Pool::take(const std::string& origin, const Watch& watch) {
  while (auto connection = take_idle(origin)) {
    if (Clock::now() < connection->idle_until && connection->at_rest()) return connection;
  }
  Tail tail = take_tail(origin);
  if (tail.parked.empty()) return nullptr;
  auto& [transfer, since] = tail.parked.front();
  const auto end = Clock::now() + (tail.crowded ? CROWDED_PATIENCE : PATIENCE);
  settle(*transfer, std::min(end, since + MAX_TAIL_AGE), watch);
  if (auto connection = transfer->release(); connection && connection->at_rest()) return connection;
  if (!transfer->ended() && !tail.crowded) {
    const std::lock_guard lock(_mutex);
    _parked.splice(_parked.begin(), tail.parked);
  }
  return nullptr;
}

// The one that this thread has used, which has its memory, and the peer's thread, near; else the
// one used last.
std::unique_ptr<Connection> Pool::take_idle(const std::string& origin) {
  const auto leads_there = [&](const auto& idle) { return idle->route().origin == origin; };
  const auto own = [&](const auto& idle) {
    return idle->user == std::this_thread::get_id() && leads_there(idle);
  };
  const std::lock_guard lock(_mutex);
  auto found = std::ranges::find_if(_idle.rbegin(), _idle.rend(), own);
  if (found == _idle.rend())
    found = std::ranges::find_if(_idle.rbegin(), _idle.rend(), leads_there);
  if (found == _idle.rend()) return nullptr;
  auto connection = std::move(*found);
  _idle.erase(std::next(found).base());
  return connection;
}

Pool::Tail Pool::take_tail(const std::string& origin) {
  const auto leads_there = [&](const Parked& parked) {
    return parked.transfer->route().origin == origin;
  };
  Tail tail;
  const std::lock_guard lock(_mutex);
  const auto first = std::ranges::find_if(_parked, leads_there);
  if (first == _parked.end()) return tail;
  tail.crowded = std::ranges::any_of(std::next(first), _parked.end(), leads_there);
  tail.parked.splice(tail.parked.end(), _parked, first);
  return tail;
}

void Pool::put(std::unique_ptr<Connection> connection) noexcept {
  if (!connection) return;
  std::list<std::unique_ptr<Connection>> stale;
  std::list<Parked> stalled;
  try {
    connection->user = std::this_thread::get_id();
    std::list<std::unique_ptr<Connection>> fresh;
    fresh.push_back(std::move(connection));
    const auto now = Clock::now();
    const std::lock_guard lock(_mutex);
    stale = cut_out(_idle, [&](const auto& idle) { return now >= idle->idle_until; });
    stalled = cut_out(_parked, [&](const auto& tail) { return now - tail.since > MAX_TAIL_AGE; });
    _idle.splice(_idle.end(), fresh);
    if (_idle.size() > MAX_IDLE) stale.splice(stale.end(), _idle, _idle.begin());
  } catch (const std::exception&) {  // out of memory: the connection is closed instead
  }
}

void Pool::park(std::unique_ptr<Transfer> transfer) noexcept {
  std::list<Parked> stalled;
  try {
    std::list<Parked> fresh;
    const auto now = Clock::now();
    fresh.push_back({.transfer = std::move(transfer), .since = now});
    const std::lock_guard lock(_mutex);
    stalled = cut_out(_parked, [&](const auto& tail) { return now - tail.since > MAX_TAIL_AGE; });
    _parked.splice(_parked.end(), fresh);
    if (_parked.size() > MAX_IDLE) stalled.splice(stalled.end(), _parked, _parked.begin());
  } catch (const std::exception&) {  // as above
  }
}

void Pool::drop(const std::string& origin) noexcept {
  std::list<std::unique_ptr<Connection>> dead;
  std::list<Parked> parked;
  const std::lock_guard lock(_mutex);
  dead = cut_out(_idle, [&](const auto& idle) { return idle->route().origin == origin; });
  parked =
      cut_out(_parked, [&](const auto& tail) { return tail.transfer->route().origin == origin; });
}

}  // namespace tovren_mapstead::engines::http
