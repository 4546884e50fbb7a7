// Finding and loading the OpenAI client library. Knows nothing of the client or the engine.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>

#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::openai {

/// The library is there but cannot be used. The text is the dynamic loader's, where it has one.
class LoadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Where the library stands on the dynamic loader's search path, looked up once in the life of the
/// process. Loads nothing. What is in a relative folder, or could be anybody's, is
/// passed over.
[[nodiscard]] const std::optional<std::filesystem::path>& find_library();

/// The library, loaded when first asked for and never unloaded; throws LoadError. Safe from any
/// thread.
[[nodiscard]] const Library& load_library();

}  // namespace tovren_mapstead::openai
