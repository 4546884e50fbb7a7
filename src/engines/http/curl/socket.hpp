// A TCP socket and what the kernel says of it. Knows neither HTTP nor libcurl.
#pragma once

#include <cstdint>
#include <utility>

namespace tovren_mapstead::engines::http {

/// Owns a descriptor and closes it. Moves, does not copy.
class Socket {
 public:
  Socket() noexcept = default;

  /// Takes ownership of `descriptor`; negative: none.
  explicit Socket(int descriptor) noexcept : _descriptor(descriptor) {}

  Socket(Socket&& other) noexcept : _descriptor(other.release()) {}

  Socket& operator=(Socket&& other) noexcept {
    std::swap(_descriptor, other._descriptor);
    return *this;
  }

  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket();

  [[nodiscard]] int get() const noexcept { return _descriptor; }

  /// Gives the descriptor away; negative if there is none.
  [[nodiscard]] int release() noexcept { return std::exchange(_descriptor, -1); }

 private:
  int _descriptor = -1;
};

/// Makes a TCP socket that does not block, that started programs do not inherit and whose number is
/// above those of standard input, output and error. Returns an empty one and sets errno on failure.
[[nodiscard]] Socket make_socket(int family) noexcept;

/// Lets the kernel give up a connection whose peer acknowledges nothing for 15 s, whether bytes are
/// on their way or none are. A peer that is slow to answer still acknowledges.
void notice_dead_path(int descriptor) noexcept;

/// Returns how many bytes the peer has acknowledged and sent; 0 if the kernel does not say.
[[nodiscard]] std::uint64_t bytes_moved(int descriptor) noexcept;

/// Whether nothing waits to be read: neither bytes nor the end of the connection nor an error.
[[nodiscard]] bool is_silent(int descriptor) noexcept;

}  // namespace tovren_mapstead::engines::http
