#include "engines/http/curl/socket.hpp"

#include <cerrno>

#include <fcntl.h>
#include <linux/tcp.h>  // glibc's own header lacks the counters
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tovren_mapstead::engines::http {
namespace {

// Two probes may be lost before a path counts as dead.
constexpr int PROBE_AFTER_S = 5;
constexpr unsigned GIVE_UP_AFTER_MS = 15'000;

template <class Value>
void set(int descriptor, int level, int option, Value value) noexcept {
  // If this fails, the kernel's default applies.
  (void)setsockopt(descriptor, level, option, &value, sizeof value);
}

}  // namespace

Socket::~Socket() {
  if (_descriptor >= 0) close(_descriptor);
}

Socket make_socket(int family) noexcept {
  Socket made(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP));
  // If standard error is closed, a socket could get its number, and log lines would go to the peer.
  if (made.get() >= 0 && made.get() <= STDERR_FILENO) {
    return Socket(fcntl(made.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  return made;
}

void notice_dead_path(int descriptor) noexcept {
  set(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
  set(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, PROBE_AFTER_S);
  set(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, PROBE_AFTER_S);
  set(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, GIVE_UP_AFTER_MS);
}

std::uint64_t bytes_moved(int descriptor) noexcept {
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return 0;
  return info.tcpi_bytes_acked + info.tcpi_bytes_received;
}

bool is_silent(int descriptor) noexcept {
  char byte = 0;
  return recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
         (errno == EAGAIN || errno == EWOULDBLOCK);
}

}  // namespace tovren_mapstead::engines::http
