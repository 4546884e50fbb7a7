#include "loopback/wire.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace loopback {

Wire::Wire(int socket, SSL_CTX* context, const std::atomic<bool>& stopping)
    : _socket(socket), _stopping(stopping) {
  fcntl(_socket, F_SETFL, O_NONBLOCK);
  const int on = 1;
  setsockopt(_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (context == nullptr) return;
  _ssl.reset(SSL_new(context));
  SSL_set_fd(_ssl.get(), _socket);
  SSL_set_accept_state(_ssl.get());
}

Wire::~Wire() {
  if (!_closed) close();
}

bool Wire::wait(short events) {
  pollfd entry{.fd = _socket, .events = events, .revents = 0};
  while (!_stopping) {
    if (poll(&entry, 1, 20) > 0) return true;
  }
  return false;
}

bool Wire::greet() {
  while (_ssl) {
    const int result = SSL_do_handshake(_ssl.get());
    if (result == 1) return true;
    const int error = SSL_get_error(_ssl.get(), result);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return false;
    if (!wait(error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT)) return false;
  }
  return true;
}

bool Wire::fill() {
  std::array<char, 16384> bytes{};
  while (!_stopping) {
    ssize_t count = 0;
    if (_ssl) {
      count = SSL_read(_ssl.get(), bytes.data(), static_cast<int>(bytes.size()));
      if (count <= 0 && SSL_get_error(_ssl.get(), static_cast<int>(count)) != SSL_ERROR_WANT_READ) {
        return false;
      }
    } else {
      count = recv(_socket, bytes.data(), bytes.size(), 0);
      if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) return false;
    }
    if (count > 0) {
      _buffer.append(bytes.data(), static_cast<std::size_t>(count));
      return true;
    }
    if (!wait(POLLIN)) return false;
  }
  return false;
}

bool Wire::send(std::string_view bytes) {
  while (!bytes.empty() && !_closed && !_stopping) {
    ssize_t count = 0;
    if (_ssl) {
      count =
          SSL_write(_ssl.get(), bytes.data(),
                    static_cast<int>(std::min<std::size_t>(bytes.size(), std::size_t{1} << 20U)));
      if (count <= 0 &&
          SSL_get_error(_ssl.get(), static_cast<int>(count)) != SSL_ERROR_WANT_WRITE) {
        return false;
      }
    } else {
      count = ::send(_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count < 0 && errno != EAGAIN && errno != EINTR) return false;
    }
    if (count > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (!wait(POLLOUT)) {
      return false;
    }
  }
  return bytes.empty();
}

std::optional<Request> Wire::next_request() {
  std::size_t end = 0;
  while ((end = _buffer.find("\r\n\r\n")) == std::string::npos) {
    if (_closed || !fill()) return std::nullopt;
    if (std::isalpha(static_cast<unsigned char>(_buffer.front())) == 0) {  // TLS, most likely
      send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
      return std::nullopt;
    }
  }
  Request request;
  std::string_view head = std::string_view(_buffer).substr(0, end + 2);
  const auto next_line = [&] {
    const std::string_view line = head.substr(0, head.find("\r\n"));
    head.remove_prefix(line.size() + 2);
    return line;
  };
  const std::string_view first = next_line();
  const std::size_t blank = first.find(' ');
  request.method = first.substr(0, blank);
  request.target = first.substr(blank + 1, first.rfind(' ') - blank - 1);
  while (!head.empty()) {
    const std::string_view line = next_line();
    const std::size_t colon = line.find(':');
    std::string name(line.substr(0, colon));
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
    request.headers[name] =
        line.substr(std::min(line.find_first_not_of(' ', colon + 1), line.size()));
  }
  _buffer.erase(0, end + 4);
  std::size_t length = 0;
  const std::string& declared = request.headers["content-length"];
  std::from_chars(declared.data(), declared.data() + declared.size(), length);
  while (_buffer.size() < length) {
    if (!fill()) return std::nullopt;
  }
  request.body = _buffer.substr(0, length);
  _buffer.erase(0, length);
  return request;
}

void Wire::stall() {
  while (!_closed && fill()) {
  }
  close();
}

void Wire::close(Farewell farewell) {
  if (_closed) return;  // the number may be another's by now
  if (farewell == Farewell::rst) {
    const linger at_once{.l_onoff = 1, .l_linger = 0};
    setsockopt(_socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  } else if (farewell == Farewell::polite) {
    close_notify();
  }
  _closed = true;
  ::close(_socket);
}

void Wire::close_notify() {
  if (_ssl) SSL_shutdown(_ssl.get());
}

void Wire::ticket() {
  if (!_ssl) return;
  SSL_new_session_ticket(_ssl.get());  // goes out with the next handshake step
  SSL_do_handshake(_ssl.get());
}

}  // namespace loopback
