// How a chat call fails.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::llm {

/// Raised when an LLM chat completion fails (after retries). Its text says what to do and holds no
/// secret. The error of the engine or of the Copilot adapter that caused it is nested in it
/// (`std::rethrow_if_nested`); `http::status_of` returns the HTTP status from there.
class TOVREN_EXPORT LLMError : public std::runtime_error {
 public:
  /// `message` must hold no secret. NUL in it becomes U+FFFD.
  explicit LLMError(std::string message)
      : std::runtime_error(http::detail::without_nul(std::move(message))) {}
};

/// Raised when the call was asked to stop (`should_stop`) before it had an answer.
class TOVREN_EXPORT LLMStopped : public LLMError {
 public:
  using LLMError::LLMError;
};

/// Raised when the call ran out of its `deadline`.
class TOVREN_EXPORT LLMTimeout : public LLMError {
 public:
  using LLMError::LLMError;
};

}  // namespace tovren_mapstead::engines::llm
