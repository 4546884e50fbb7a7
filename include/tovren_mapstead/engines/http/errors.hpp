// What an exchange or a retry loop can end in. The engine makes these texts free of the secrets it
// was given before it throws, so whoever prints one later cannot leak them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

namespace detail {

/// `text` with U+FFFD for each NUL: `what()` would end at the first.
[[nodiscard]] inline std::string without_nul(const std::string& text) {
  if (text.find('\0') == std::string::npos) return text;
  std::string out;
  for (const char c : text) c == '\0' ? out += "\uFFFD" : out += c;
  return out;
}

}  // namespace detail

/// The engine's errors have this base, so that a caller of the engine alone can catch them all.
class TOVREN_EXPORT Error : public std::runtime_error {
 public:
  /// `message` is quoted as it is, but for NUL, which becomes U+FFFD: it must hold no secret.
  explicit Error(const std::string& message, std::optional<int> status = std::nullopt)
      : std::runtime_error(detail::without_nul(message)), _status(status) {}

  /// The HTTP status of the reply behind the failure, or that was being read; absent: none came.
  [[nodiscard]] std::optional<int> status() const noexcept { return _status; }

 private:
  std::optional<int> _status;
};

/// A failure that another attempt may mend: `retry` makes one if its policy has any left.
class TOVREN_EXPORT Retryable : public Error {
 public:
  using Error::Error;
};

/// The peer was silent for longer than the time limit.
class TOVREN_EXPORT TimedOut : public Retryable {
 public:
  using Retryable::Retryable;
};

/// A failure that no repetition mends: a refusing status, a bad URL, a certificate, a request that
/// cannot be written.
class TOVREN_EXPORT HttpFailure : public Error {
 public:
  /// The text is `what`, followed by ": " and `detail` unless that is empty.
  explicit HttpFailure(const std::string& what, std::optional<int> status = std::nullopt,
                       const std::string& detail = {})
      : Error(detail.empty() ? what : what + ": " + detail, status),
        _detail_chars(http::detail::without_nul(detail).size()) {}

  /// The quoted start of the server's reply, or nothing. Lives as long as this error.
  [[nodiscard]] std::string_view detail() const noexcept {
    const std::string_view text = what();
    return text.substr(text.size() - std::min(text.size(), _detail_chars));
  }

 private:
  std::size_t _detail_chars;
};

/// The caller's stop test said stop.
class TOVREN_EXPORT Stopped : public Error {
 public:
  using Error::Error;
};

/// The caller's deadline passed, or the next attempt could only have begun after it.
class TOVREN_EXPORT DeadlineExceeded : public Error {
 public:
  using Error::Error;
};

/// Every attempt of a retry loop failed in a way that called for another.
class TOVREN_EXPORT Exhausted : public Error {
 public:
  using Error::Error;
};

}  // namespace tovren_mapstead::engines::http
