#include "engines/http/curl/dial.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <system_error>
#include <utility>
#include <vector>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

namespace tovren_mapstead::engines::http {
namespace {

// RFC 8305, section 5: the recommended "Connection Attempt Delay".
constexpr std::chrono::milliseconds NEXT_ADDRESS_AFTER{250};

// Alternates the address families, so that a family without a route costs one delay (RFC 8305,
// section 4). Each family keeps the system's order.
std::vector<Address> interleaved(std::vector<Address> addresses) {
  std::vector<Address> first;
  std::vector<Address> second;
  for (const Address& address : addresses) {
    const bool same = address.storage.ss_family == addresses.front().storage.ss_family;
    (same ? first : second).push_back(address);
  }
  addresses.clear();
  for (std::size_t i = 0; i < std::max(first.size(), second.size()); ++i) {
    if (i < first.size()) addresses.push_back(first[i]);
    if (i < second.size()) addresses.push_back(second[i]);
  }
  return addresses;
}

std::string in_text(const Address& address) {
  std::array<char, NI_MAXHOST> text{};
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address.storage);
  getnameinfo(generic, address.size, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST);
  return text.data();
}

// Attempts to connect to each address in turn. Several attempts may be pending.
class Dialer {
 public:
  explicit Dialer(std::vector<Address> addresses) : _addresses(std::move(addresses)) {}

  // Starts the next attempt if it is due.
  void advance() {
    while (_next < _addresses.size() && (_attempts.empty() || Clock::now() >= _next_at)) start();
  }

  [[nodiscard]] bool failed() const noexcept {
    return _attempts.empty() && _next == _addresses.size();
  }

  [[nodiscard]] int last_error() const noexcept { return _last_error; }

  // Waits until an attempt has ended or the next is due.
  void wait(std::chrono::milliseconds longest) {
    if (_next < _addresses.size()) {
      const auto due = std::chrono::ceil<std::chrono::milliseconds>(_next_at - Clock::now());
      longest = std::clamp(due, std::chrono::milliseconds{0}, longest);
    }
    std::vector<pollfd> polls;
    polls.reserve(_attempts.size());
    for (const Attempt& attempt : _attempts) polls.push_back(attempt.poll);
    (void)poll(polls.data(), polls.size(), static_cast<int>(longest.count()));
    for (std::size_t i = 0; i < polls.size(); ++i) _attempts[i].poll = polls[i];
  }

  // Returns the connection of an attempt that has succeeded, if any. Removes those that have
  // failed.
  std::optional<TcpConnection> connected() {
    for (std::size_t i = 0; i < _attempts.size();) {
      Attempt& attempt = _attempts[i];
      if (attempt.poll.revents == 0) {
        ++i;
        continue;
      }
      int error = 0;
      socklen_t size = sizeof error;
      getsockopt(attempt.socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
      if (error == 0) return TcpConnection{std::move(attempt.socket), in_text(*attempt.address)};
      _last_error = error;
      _attempts.erase(_attempts.begin() + static_cast<std::ptrdiff_t>(i));
    }
    return std::nullopt;
  }

 private:
  struct Attempt {
    Socket socket;
    const Address* address;
    pollfd poll;
  };

  void start() {
    const Address& address = _addresses[_next++];
    _next_at = Clock::now() + NEXT_ADDRESS_AFTER;
    Socket socket = make_socket(address.storage.ss_family);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address.storage);
    if (socket.get() < 0 || (connect(socket.get(), generic, address.size) != 0 &&
                             errno != EINPROGRESS && errno != EINTR)) {
      _last_error = errno;
      return;
    }
    const pollfd writable{.fd = socket.get(), .events = POLLOUT, .revents = 0};
    _attempts.push_back({.socket = std::move(socket), .address = &address, .poll = writable});
  }

  const std::vector<Address> _addresses;
  std::size_t _next = 0;
  Clock::time_point _next_at{};
  std::vector<Attempt> _attempts;
  int _last_error = 0;
};

}  // namespace

TcpConnection dial(Names& names, const Service& service, Watch& watch) {
  Dialer dialer(interleaved(names.find(service, watch)));
  watch.moved();
  for (;;) {
    dialer.advance();
    if (dialer.failed()) {
      throw TransportError(
          "cannot connect to " + service.label + " (" +
              std::generic_category().message(dialer.last_error()) + "); check " +
              (service.is_proxy ? "the proxy variables" : "the URL and that the server runs"),
          true);
    }
    watch.check("connecting to", service.label);
    dialer.wait(watch.patience());
    if (std::optional<TcpConnection> made = dialer.connected()) {
      notice_dead_path(made->socket.get());
      watch.moved();
      return std::move(*made);
    }
  }
}

}  // namespace tovren_mapstead::engines::http
