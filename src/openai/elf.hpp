// What the dynamic loader does not look at: whether a shared object is there to its end.
#pragma once

#include <filesystem>

namespace tovren_mapstead::openai {

/// Returns whether `file` is an ELF object of this machine's class and byte order that ends before
/// one of its tables or segments does: the loader would map pages that are not there, and the first
/// use of one ends the process (SIGBUS). False for any other file, which the loader refuses itself.
[[nodiscard]] bool cut_short(const std::filesystem::path& file);

}  // namespace tovren_mapstead::openai
