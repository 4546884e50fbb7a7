// The settings of one client.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::llm {

/// Resolved configuration for an OpenAI-compatible chat client.
/// Immutable; nothing is checked here. Fields are given by name, those left out take their
/// defaults: `LLMConfig{.base_url = "https://api.example.org/v1", .model = "m", .api_key = key}`.
struct LLMConfig {
  const std::string provider = "openai";       ///< "copilot": GitHub Copilot; else any endpoint.
  const std::string base_url{};                ///< http(s) URL before "/chat/completions".
  const std::string model{};                   ///< Sent with every request.
  const std::optional<std::string> api_key{};  ///< A secret; kept out of every error text.
  const double timeout_s = 60.0;               ///< Longest silence, and longest stream; 0: any.
  const int max_retries = 2;                   ///< Attempts after the first; negative: none.
  const double temperature = 0.2;              ///< Unless a call gives another.
  const int max_tokens = 1500;                 ///< Most tokens of an answer, unless a call says.
  const bool stream = true;                    ///< Whether answers are streamed.

  /// Whether all settings are the same.
  bool operator==(const LLMConfig&) const = default;
};

}  // namespace tovren_mapstead::engines::llm

/// @cond a reference of std is not ours to write
template <>
struct std::hash<tovren_mapstead::engines::llm::LLMConfig> {
  TOVREN_EXPORT std::size_t operator()(
      const tovren_mapstead::engines::llm::LLMConfig& config) const noexcept;
};

/// @endcond
