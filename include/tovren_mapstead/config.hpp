// The application's configuration, as far as this library reads it. Where it comes from, a file or
// a form, is the application's business. No key is in here: keys come from the environment.
#pragma once

#include <string>

/// The library of the application.
namespace tovren_mapstead {

/// How answers are generated: section `generation` of the configuration.
struct GenerationConfig {
  std::string provider = "openai";  ///< "copilot": GitHub Copilot; else any compatible endpoint.
  std::string base_url{};           ///< http(s) URL before "/chat/completions"; unused by Copilot.
  std::string model{};              ///< Empty with Copilot: its default model.
  double timeout_s = 60.0;          ///< Longest silence, and longest stream; 0: any.
  int max_retries = 2;              ///< Attempts after the first.
  double temperature = 0.2;         ///< Sampling temperature.
  int max_output_tokens = 1500;     ///< Most tokens of one answer.
  bool stream = true;               ///< Whether answers are streamed.

  /// Whether all settings are the same.
  bool operator==(const GenerationConfig&) const = default;
};

/// The application's configuration. A plain record; change it as you like before you build from it.
struct Config {
  GenerationConfig generation;  ///< How answers are generated.

  /// Whether all settings are the same.
  bool operator==(const Config&) const = default;
};

}  // namespace tovren_mapstead
