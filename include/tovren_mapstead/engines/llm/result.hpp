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

/// Result of a chat completion. Immutable, but assignable as a whole and moved without a copy.
///
///     const LLMResult result({.content = "42", .model = "m"});
class LLMResult {
 public:
  /// A string without a default: fields that leave it out do not compile.
  class Required : public std::string {
   public:
    /// @{
    /// Has this text.
    Required(std::string text) noexcept  // NOLINT(google-explicit-constructor): it is a string
        : std::string(std::move(text)) {}

    Required(const char* text) : std::string(text) {}  // NOLINT(google-explicit-constructor)

    /// @}
  };

  /// The fields by name.
  struct Fields {
    Required content;                            ///< The answer.
    Required model;                              ///< The model that answered.
    std::int64_t prompt_tokens = 0;              ///< 0 if the provider did not report it.
    std::int64_t completion_tokens = 0;          ///< 0 if the provider did not report it.
    std::optional<std::string> finish_reason{};  ///< Absent if the provider gave none.

    /// Returns whether all fields are equal.
    bool operator==(const Fields&) const = default;
  };

  /// Has the given fields.
  LLMResult(Fields fields) noexcept  // NOLINT(google-explicit-constructor): its fields by name
      : _fields(std::move(fields)) {}

  /// Returns the answer. The reference lives as long as this object.
  [[nodiscard]] const std::string& content() const& noexcept { return _fields.content; }

  /// Moves the answer out: `std::string answer = client.chat(messages).content();`
  [[nodiscard]] std::string content() && noexcept { return std::move(_fields.content); }

  /// Returns the model that answered, as the reply names it, else as configured.
  [[nodiscard]] const std::string& model() const noexcept { return _fields.model; }

  /// Returns how many tokens the provider counted in the messages; 0 if it did not report it.
  [[nodiscard]] std::int64_t prompt_tokens() const noexcept { return _fields.prompt_tokens; }

  /// Returns how many tokens the provider counted in the answer; 0 if it did not report it.
  [[nodiscard]] std::int64_t completion_tokens() const noexcept {
    return _fields.completion_tokens;
  }

  /// Returns why the answer ended, in the provider's words; absent if it gave no reason.
  [[nodiscard]] const std::optional<std::string>& finish_reason() const noexcept {
    return _fields.finish_reason;
  }

  /// Returns the sum of both counts; saturates.
  [[nodiscard]] std::int64_t total_tokens() const noexcept {
    using Limits = std::numeric_limits<std::int64_t>;
    const auto [prompt, completion] = std::pair(prompt_tokens(), completion_tokens());
    if (completion > 0 && prompt > Limits::max() - completion) return Limits::max();
    if (completion < 0 && prompt < Limits::min() - completion) return Limits::min();
    return prompt + completion;
  }

  /// Returns whether all fields are equal.
  bool operator==(const LLMResult&) const = default;

 private:
  // For `map[key] = result`, which makes an element before it assigns. Nobody else can make a
  // result without an answer.
  template <class, class>
  friend struct std::pair;

  LLMResult() : _fields{.content = "", .model = ""} {}

  Fields _fields;
};

}  // namespace tovren_mapstead::engines::llm

/// @cond the reference of std is not written here
template <>
struct std::hash<tovren_mapstead::engines::llm::LLMResult> {
  TOVREN_EXPORT std::size_t operator()(
      const tovren_mapstead::engines::llm::LLMResult& result) const noexcept;
};

/// @endcond
