// The outcome of one chat completion.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::llm {

/// A string that has to be given: without a default, a record that leaves it out does not compile.
class RequiredString : public std::string {
 public:
  /// A plain string is one.
  RequiredString(std::string text) noexcept  // NOLINT(google-explicit-constructor): is a string
      : std::string(std::move(text)) {}

  /// So is a literal. `text` must not be null.
  RequiredString(const char* text) : std::string(text) {}  // NOLINT(google-explicit-constructor)
};

/// Result of a chat completion. Immutable; fields are given by name, the first two always.
struct LLMResult {
  const RequiredString content;              ///< The answer.
  const RequiredString model;                ///< Who answered, by the reply or as configured.
  const std::int64_t prompt_tokens = 0;      ///< As the provider counts; 0: not told.
  const std::int64_t completion_tokens = 0;  ///< As the provider counts; 0: not told.
  const std::optional<std::string>
      finish_reason{};  ///< As the provider gives it; absent: not told.

  /// The sum of both counts; a sum beyond the type's range is its nearest end.
  [[nodiscard]] constexpr std::int64_t total_tokens() const noexcept {
    using Limits = std::numeric_limits<std::int64_t>;
    if (completion_tokens > 0 && prompt_tokens > Limits::max() - completion_tokens) {
      return Limits::max();
    }
    if (completion_tokens < 0 && prompt_tokens < Limits::min() - completion_tokens) {
      return Limits::min();
    }
    return prompt_tokens + completion_tokens;
  }

  /// Whether all of it is the same.
  bool operator==(const LLMResult&) const = default;
};

}  // namespace tovren_mapstead::engines::llm

/// @cond a reference of std is not ours to write
template <>
struct std::hash<tovren_mapstead::engines::llm::LLMResult> {
  TOVREN_EXPORT std::size_t operator()(
      const tovren_mapstead::engines::llm::LLMResult& result) const noexcept;
};

/// @endcond
