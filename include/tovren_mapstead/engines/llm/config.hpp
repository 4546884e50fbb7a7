// The settings of one client.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::llm {

/// Resolved configuration for an OpenAI-compatible chat client. Immutable, but assignable as a
/// whole; nothing is checked here.
///
///     const LLMConfig config({.base_url = "https://api.example.org/v1", .model = "m"});
class LLMConfig {
 public:
  /// The fields by name. Those that are left out have their defaults.
  struct Fields {
    std::string provider = "openai";       ///< "copilot" is GitHub Copilot; any other: `base_url`.
    std::string base_url{};                ///< http(s) URL before "/chat/completions".
    std::string model{};                   ///< Sent with every request.
    std::optional<std::string> api_key{};  ///< A secret; kept out of every error text.
    double timeout_s = 60.0;   ///< Idle timeout, and limit of a whole stream, in seconds; 0: none.
    int max_retries = 2;       ///< Attempts after the first; below 0 counts as 0.
    double temperature = 0.2;  ///< Unless a call gives another.
    int max_tokens = 1500;     ///< Most tokens of an answer, unless a call gives another.
    bool stream = true;        ///< Whether answers are streamed.

    /// Returns whether all fields are equal.
    bool operator==(const Fields&) const = default;
  };

  /// Has all defaults, and so no endpoint and no model.
  LLMConfig() = default;

  /// Has the given fields.
  LLMConfig(Fields fields) noexcept  // NOLINT(google-explicit-constructor): its fields by name
      : _fields(std::move(fields)) {}

  /// @{
  /// Returns the field of this name. A reference lives as long as this object.
  [[nodiscard]] const std::string& provider() const noexcept { return _fields.provider; }

  [[nodiscard]] const std::string& base_url() const noexcept { return _fields.base_url; }

  [[nodiscard]] const std::string& model() const noexcept { return _fields.model; }

  [[nodiscard]] const std::optional<std::string>& api_key() const noexcept {
    return _fields.api_key;
  }

  [[nodiscard]] double timeout_s() const noexcept { return _fields.timeout_s; }

  [[nodiscard]] int max_retries() const noexcept { return _fields.max_retries; }

  [[nodiscard]] double temperature() const noexcept { return _fields.temperature; }

  [[nodiscard]] int max_tokens() const noexcept { return _fields.max_tokens; }

  [[nodiscard]] bool stream() const noexcept { return _fields.stream; }

  /// @}

  /// Returns a copy of all fields, for a configuration that differs in some of them.
  [[nodiscard]] Fields fields() const { return _fields; }

  /// Returns whether all fields are equal.
  bool operator==(const LLMConfig&) const = default;

 private:
  Fields _fields;
};

}  // namespace tovren_mapstead::engines::llm

/// @cond the reference of std is not written here
template <>
struct std::hash<tovren_mapstead::engines::llm::LLMConfig> {
  TOVREN_EXPORT std::size_t operator()(
      const tovren_mapstead::engines::llm::LLMConfig& config) const noexcept;
};

/// @endcond
