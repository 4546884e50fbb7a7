// How an exchange, a retry loop or a transport fails. The engine removes its caller's secrets from
// these texts before it throws, so whoever prints one later cannot leak them.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

namespace detail {

/// Returns `text` with U+FFFD for each NUL, because `what()` would end at the first.
[[nodiscard]] TOVREN_EXPORT std::string without_nul(std::string text);

}  // namespace detail

/// The base of the engine's errors.
class TOVREN_EXPORT Error : public std::runtime_error {
 public:
  /// `message` must hold no secret. NUL in it becomes U+FFFD.
  explicit Error(std::string message, std::optional<int> status = std::nullopt)
      : std::runtime_error(detail::without_nul(std::move(message))), _status(status) {}

  /// Returns the HTTP status of the reply behind the failure, for a retry loop of its last failure;
  /// nothing if there was no reply.
  [[nodiscard]] std::optional<int> status() const noexcept { return _status; }

  /// Removes `secrets` from the text, for a handler that rethrows the error.
  virtual void redact(const Secrets& secrets);

 private:
  std::optional<int> _status;
};

/// A failure that another attempt may avoid. `retry` makes one if its policy has any left.
class TOVREN_EXPORT Retryable : public Error {
 public:
  using Error::Error;
};

/// No data came or went for longer than the idle timeout.
class TOVREN_EXPORT TimedOut : public Retryable {
 public:
  using Retryable::Retryable;
};

/// A failure that repetition does not avoid: a refusing status, a bad URL, a certificate, a request
/// that cannot be written.
class TOVREN_EXPORT HttpFailure : public Error {
 public:
  /// The text is `what`, followed by ": " and `detail` unless that is empty.
  explicit HttpFailure(const std::string& what, std::optional<int> status = std::nullopt,
                       const std::string& detail = {});

  /// Returns the quoted start of the server's reply, which may be empty. Lives as long as this
  /// error.
  [[nodiscard]] std::string_view detail() const noexcept;

  void redact(const Secrets& secrets) override;

 private:
  std::size_t _detail_bytes;
};

/// The caller's stop test ended the call.
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

/// What a transport throws when it cannot carry a request. The engine makes a Retryable or an
/// HttpFailure of it and removes the secrets from its text.
class TOVREN_EXPORT TransportError : public std::runtime_error {
 public:
  /// `transient` says that the same request may get through when it is sent again. `status` is that
  /// of a proxy which refused to pass the request on: it is sorted like a server's, whatever
  /// `transient` is.
  TransportError(std::string message, bool transient, std::optional<int> status = std::nullopt)
      : std::runtime_error(detail::without_nul(std::move(message))),
        _transient(transient),
        _status(status) {}

  /// Returns whether the same request may get through when it is sent again.
  [[nodiscard]] bool transient() const noexcept { return _transient; }

  /// Returns the HTTP status with which a proxy refused; nothing for any other failure.
  [[nodiscard]] std::optional<int> status() const noexcept { return _status; }

 private:
  bool _transient;
  std::optional<int> _status;
};

}  // namespace tovren_mapstead::engines::http
