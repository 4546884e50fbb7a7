#include "engines/http/curl/names.hpp"

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include "engines/http/process.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Pending look-ups at the same time, a thread each.
constexpr std::size_t MAX_LOOKUPS = 64;

// A hostile name server may list any number of addresses.
constexpr std::size_t MAX_ADDRESSES = 16;

struct Found {
  int error = 0;         // of getaddrinfo
  int system_error = 0;  // with EAI_SYSTEM
  std::vector<Address> addresses;
};

Found look_up(const std::string& host, int flags) {
  struct Free {
    void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
  };

  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* list = nullptr;
  Found found;
  const LookupGuard guard;
  found.error = getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (found.error == EAI_SYSTEM) found.system_error = errno;
  if (found.error != 0) return found;
  const std::unique_ptr<addrinfo, Free> owner(list);
  for (; list != nullptr && found.addresses.size() < MAX_ADDRESSES; list = list->ai_next) {
    if (list->ai_addrlen > sizeof(sockaddr_storage)) continue;
    Address& address = found.addresses.emplace_back();
    std::memcpy(&address.storage, list->ai_addr, list->ai_addrlen);
    address.size = list->ai_addrlen;
  }
  return found;
}

void set_port(Address& address, std::uint16_t port) {
  if (address.storage.ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6&>(address.storage).sin6_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in&>(address.storage).sin_port = htons(port);
  }
}

std::vector<Address> usable(Found found, const Service& service) {
  if (found.addresses.empty()) {
    const std::string reason = found.error == 0 ? "it has no address"
                               : found.error == EAI_SYSTEM
                                   ? std::generic_category().message(found.system_error)
                                   : gai_strerror(found.error);
    throw TransportError("cannot resolve " + service.label + " (" + reason + "); check " +
                             (service.is_proxy ? "the proxy variables" : "the URL and the network"),
                         true);
  }
  for (Address& address : found.addresses) set_port(address, service.port);
  return std::move(found.addresses);
}

// An address needs no look-up.
bool is_address(const std::string& host) {
  in_addr address{};
  return host.find(':') != std::string::npos || inet_pton(AF_INET, host.c_str(), &address) == 1;
}

// Blocks all signals in its scope. A new thread inherits that, so the application's handlers do not
// run on it.
class WithoutSignals {
 public:
  WithoutSignals() noexcept {
    sigset_t all{};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &_before);
  }

  WithoutSignals(const WithoutSignals&) = delete;
  WithoutSignals& operator=(const WithoutSignals&) = delete;

  ~WithoutSignals() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

 private:
  sigset_t _before{};
};

}  // namespace

struct Names::Lookup {
  std::mutex mutex;
  std::condition_variable ended;
  bool has_ended = false;
  Found found;
};

std::shared_ptr<Names::Lookup> Names::begin(const std::string& host) {
  const auto has_ended = [](const auto& entry) {
    const std::lock_guard lock(entry.second->mutex);
    return entry.second->has_ended;
  };
  const std::lock_guard lock(_mutex);
  std::erase_if(_pending, has_ended);
  if (const auto same = _pending.find(host); same != _pending.end()) return same->second;
  if (_pending.size() >= MAX_LOOKUPS) {
    throw TransportError(
        "cannot resolve " + host + " (too many look-ups hang); check the name server", true);
  }
  auto lookup = std::make_shared<Lookup>();
  _pending.emplace(host, lookup);
  const auto run = [lookup, host] {
    Found found;
    try {
      found = look_up(host, 0);
    } catch (const std::bad_alloc&) {
      found = {.error = EAI_MEMORY, .addresses = {}};
    }
    const std::lock_guard held(lookup->mutex);
    lookup->found = std::move(found);
    lookup->has_ended = true;
    lookup->ended.notify_all();
  };
  try {
    const WithoutSignals blocked;
    std::thread(run).detach();
  } catch (...) {
    _pending.erase(host);
    throw;
  }
  return lookup;
}

std::vector<Address> Names::find(const Service& service, const Watch& watch) {
  if (is_address(service.host)) return usable(look_up(service.host, AI_NUMERICHOST), service);
  std::shared_ptr<Lookup> lookup;
  try {
    lookup = begin(service.host);
  } catch (const std::system_error& error) {  // cannot start a thread
    throw TransportError(
        "cannot resolve " + service.label + " (" + error.what() + "); try again later", true);
  }
  std::unique_lock lock(lookup->mutex);
  while (!lookup->has_ended) {
    lock.unlock();
    watch.check("resolving", service.label);
    lock.lock();
    if (!lookup->has_ended) lookup->ended.wait_for(lock, watch.patience());
  }
  return usable(lookup->found, service);
}

}  // namespace tovren_mapstead::engines::http
