// Checks a shared object for truncation, which the dynamic loader does not detect.
#pragma once

#include <filesystem>

namespace tovren_mapstead::openai {

/// Returns whether `file` is an ELF object of this machine's class and byte order that ends before
/// one of its tables or segments. The loader would map missing pages, whose first use ends the
/// process (SIGBUS). Returns false for any other file, which the loader rejects itself.
[[nodiscard]] bool is_truncated(const std::filesystem::path& file);

}  // namespace tovren_mapstead::openai
