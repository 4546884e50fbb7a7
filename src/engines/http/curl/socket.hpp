// A TCP socket and its state in the kernel. Knows neither HTTP nor libcurl.
#pragma once

#include <cstdint>
#include <utility>

namespace tovren_mapstead::engines::http {

/// Owns a descriptor and closes it. Can be moved, not copied.
class Socket {
 public:
  Socket() noexcept = default;

  /// Takes ownership of `descriptor`; a negative one is none.
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

  /// Returns the descriptor and gives up its ownership; negative if there is none.
  [[nodiscard]] int release() noexcept { return std::exchange(_descriptor, -1); }

 private:
  int _descriptor = -1;
};

/// Returns a non-blocking TCP socket that is closed on exec and whose number is above that of
/// standard error. On failure returns an empty one and sets errno.
[[nodiscard]] Socket make_socket(int family) noexcept;

/// Makes the kernel close a connection whose peer acknowledges nothing for 15 s, while data is in
/// transit and while the connection is idle. A peer that is slow to answer still acknowledges.
void notice_dead_path(int descriptor) noexcept;

/// Returns how many bytes the peer has acknowledged and sent; 0 if the kernel does not report it.
[[nodiscard]] std::uint64_t bytes_moved(int descriptor) noexcept;

/// Returns whether nothing can be read: no bytes, no end of the connection, no error.
[[nodiscard]] bool is_silent(int descriptor) noexcept;

}  // namespace tovren_mapstead::engines::http
