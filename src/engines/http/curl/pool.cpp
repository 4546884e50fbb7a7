#include "engines/http/curl/pool.hpp"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <thread>
#include <utility>

namespace tovren_mapstead::engines::http {
namespace {

constexpr std::size_t MAX_IDLE = 64;  // about 22 KB each, more with TLS

// How long a request waits for the end of the previous reply. A server that ends its replies later
// gets a second connection. If both wait for the end of a reply, a request waits about as long as a
// third connection to a distant server would take.
constexpr std::chrono::milliseconds PATIENCE{4};
constexpr std::chrono::milliseconds CROWDED_PATIENCE{50};

// A reply that has not ended by then will not end soon.
constexpr std::chrono::seconds MAX_DRAINING{1};

// libcurl closes an HTTP/1.1 connection if its body was not read to the end, and the end marker of
// a stream usually arrives before the terminating chunk.
void drain(Transfer& transfer, Clock::time_point end, const Watch& watch) {
  while (!transfer.drain()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return;
    watch.check("waiting for a connection to", transfer.route().origin);
    transfer.poll(std::min(left, watch.patience()));
  }
}

// Takes the elements out of `list` that `chosen` is true for. Destroy them without the lock,
// because that closes connections.
template <class Element, class Chosen>
std::list<Element> take_if(std::list<Element>& list, Chosen chosen) noexcept {
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
    if (Clock::now() < connection->idle_until && connection->is_idle()) return connection;
  }
  Candidate candidate = take_draining(origin);
  if (candidate.draining.empty()) return nullptr;
  auto& [transfer, since] = candidate.draining.front();
  const auto end = Clock::now() + (candidate.crowded ? CROWDED_PATIENCE : PATIENCE);
  drain(*transfer, std::min(end, since + MAX_DRAINING), watch);
  if (auto connection = transfer->release(); connection && connection->is_idle()) return connection;
  if (!transfer->ended() && !candidate.crowded) {
    const std::lock_guard lock(_mutex);
    _draining.splice(_draining.begin(), candidate.draining);
  }
  return nullptr;
}

// Prefers the connection that this thread used, whose memory is in the processor's cache, to the
// one used last.
std::unique_ptr<Connection> Pool::take_idle(const std::string& origin) {
  const auto matches = [&](const auto& idle) { return idle->route().origin == origin; };
  const auto own = [&](const auto& idle) {
    return idle->user == std::this_thread::get_id() && matches(idle);
  };
  const std::lock_guard lock(_mutex);
  auto found = std::ranges::find_if(_idle.rbegin(), _idle.rend(), own);
  if (found == _idle.rend()) found = std::ranges::find_if(_idle.rbegin(), _idle.rend(), matches);
  if (found == _idle.rend()) return nullptr;
  auto connection = std::move(*found);
  _idle.erase(std::next(found).base());
  return connection;
}

Pool::Candidate Pool::take_draining(const std::string& origin) {
  const auto matches = [&](const Draining& entry) {
    return entry.transfer->route().origin == origin;
  };
  Candidate candidate;
  const std::lock_guard lock(_mutex);
  const auto first = std::ranges::find_if(_draining, matches);
  if (first == _draining.end()) return candidate;
  candidate.crowded = std::ranges::any_of(std::next(first), _draining.end(), matches);
  candidate.draining.splice(candidate.draining.end(), _draining, first);
  return candidate;
}

void Pool::put(std::unique_ptr<Connection> connection) noexcept {
  if (!connection) return;
  connection->user = std::this_thread::get_id();
  add(std::move(connection), nullptr);
}

void Pool::drain_later(std::unique_ptr<Transfer> transfer) noexcept {
  add(nullptr, std::move(transfer));
}

// Adds one of the two, and closes what has expired or exceeds the limit.
void Pool::add(std::unique_ptr<Connection> connection,
               std::unique_ptr<Transfer> transfer) noexcept {
  try {
    const auto now = Clock::now();
    std::list<std::unique_ptr<Connection>> idle;
    std::list<std::unique_ptr<Connection>> old_idle;
    std::list<Draining> draining;
    std::list<Draining> old_draining;
    if (connection) idle.push_back(std::move(connection));
    if (transfer) draining.push_back({.transfer = std::move(transfer), .since = now});
    const std::lock_guard lock(_mutex);
    old_idle = take_if(_idle, [&](const auto& entry) { return now >= entry->idle_until; });
    old_draining =
        take_if(_draining, [&](const auto& entry) { return now - entry.since > MAX_DRAINING; });
    _idle.splice(_idle.end(), idle);
    _draining.splice(_draining.end(), draining);
    if (_idle.size() > MAX_IDLE) old_idle.splice(old_idle.end(), _idle, _idle.begin());
    if (_draining.size() > MAX_IDLE)
      old_draining.splice(old_draining.end(), _draining, _draining.begin());
  } catch (const std::exception&) {  // out of memory: the connection is closed instead
  }
}

void Pool::drop(const std::string& origin) noexcept {
  std::list<std::unique_ptr<Connection>> dead;
  std::list<Draining> draining;
  const std::lock_guard lock(_mutex);
  dead = take_if(_idle, [&](const auto& idle) { return idle->route().origin == origin; });
  draining = take_if(_draining,
                     [&](const auto& entry) { return entry.transfer->route().origin == origin; });
}

}  // namespace tovren_mapstead::engines::http
