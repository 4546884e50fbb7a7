// Converts the source files of a tree to the text of a prompt, and back.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace ask {

struct SourceFile {
  std::string path;  // relative to the root of the tree
  std::string text;
};

/// Returns the text files below `root`, in the order of their paths, at most `budget` bytes in all.
/// Skips files that do not fit, hidden folders, CMake build trees, symbolic links, and files that
/// are not UTF-8 text.
std::vector<SourceFile> gather(const std::filesystem::path& root, std::size_t budget);

/// Returns the question and the files, each below a line with its path and size.
std::string to_prompt(const std::vector<SourceFile>& files, std::string_view question);

/// The parts of a prompt.
struct Prompt {
  std::string question;
  std::vector<SourceFile> files;
};

/// Returns the arguments of `to_prompt`. For any other text, returns it as a question without
/// files.
Prompt from_prompt(std::string_view text);

}  // namespace ask
