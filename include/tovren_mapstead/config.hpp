// The part of the application's configuration that this library reads. The application decides
// where it comes from. It holds no API key, which comes from the environment.
#pragma once

#include <string>

/// The library of the application.
namespace tovren_mapstead {

/// Section `generation` of the configuration: how answers are generated.
struct GenerationConfig {
  std::string provider =
      "openai";                  ///< "copilot" for GitHub Copilot; else the endpoint at `base_url`.
  std::string base_url{};        ///< http(s) URL before "/chat/completions"; unused by Copilot.
  std::string model{};           ///< With Copilot, empty means its default model.
  double timeout_s = 60.0;       ///< Idle timeout and stream limit in seconds; 0 means no limit.
  int max_retries = 2;           ///< Attempts after the first.
  double temperature = 0.2;      ///< Sampling temperature.
  int max_output_tokens = 1500;  ///< Maximum number of tokens of an answer.
  bool stream = true;            ///< Whether to stream answers.

  /// Returns whether all settings are equal.
  bool operator==(const GenerationConfig&) const = default;
};

/// The application's configuration. A plain value.
struct Config {
  GenerationConfig generation;  ///< How answers are generated.

  /// Returns whether all settings are equal.
  bool operator==(const Config&) const = default;
};

}  // namespace tovren_mapstead
