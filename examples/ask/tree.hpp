// Lists and reads the files of a source tree.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ask {

/// Files above this size are no source files but data.
constexpr std::size_t MAX_FILE_BYTES = std::size_t{1} << 20U;

/// Returns the paths of the files below `root`, relative to it, in order; bytes as the file system
/// has them. Skips hidden files and folders, symbolic links, and what tools build and install into
/// a tree. Throws std::filesystem::filesystem_error if `root` cannot be read.
std::vector<std::string> list(const std::filesystem::path& root);

/// Returns the text of a file; nothing if it is empty, too large, not UTF-8 text or unreadable.
std::optional<std::string> read_text(const std::filesystem::path& path);

}  // namespace ask
