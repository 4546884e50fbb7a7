// Finds and loads the OpenAI client library. Does not know the client or the engine.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>

#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::openai {

/// The library cannot be used. The text is that of the dynamic loader, if it reports the failure.
class LoadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Returns the library's file on the dynamic loader's search path, or nothing. Searches once in a
/// process, and loads nothing. Skips relative folders and files that any user can replace.
[[nodiscard]] const std::optional<std::filesystem::path>& find_library();

/// Returns the library; loads it at the first call and never unloads it. Throws LoadError.
/// Thread-safe.
[[nodiscard]] const Library& load_library();

}  // namespace tovren_mapstead::openai
