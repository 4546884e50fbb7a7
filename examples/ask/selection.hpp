// Chooses what a prompt shows of a source tree.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "ask/prompt.hpp"

namespace ask {

struct Selection {
  std::vector<std::string> paths;  // as the file system has them, the most relevant first
  std::size_t files_in_tree = 0;
  Prompt prompt;
};

/// Returns a prompt of about `budget` bytes: the question, the names of all files, the start of the
/// README, and the files that are most relevant to the question, whole or in part. Reads each file
/// of the tree once and holds one at a time. Throws std::filesystem::filesystem_error if `root`
/// cannot be read.
Selection select(const std::filesystem::path& root, std::string_view question, std::size_t budget);

}  // namespace ask
