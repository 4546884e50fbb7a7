// The source files of a tree, as the text of a prompt.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace ask {

struct SourceFile {
  std::string path;  // below the tree's root
  std::string text;
};

/// The text files below `root`, in the order of their paths, at most `budget` bytes of them; what
/// does not fit is left out, smaller files behind it are not. Left out as well: hidden folders,
/// CMake build trees, symbolic links, and files that are not UTF-8 text.
std::vector<SourceFile> gather(const std::filesystem::path& root, std::size_t budget);

/// The question and the files, each under a line that tells its path and size.
std::string to_prompt(const std::vector<SourceFile>& files, std::string_view question);

/// What `to_prompt` made a text from; no files where it made it from nothing of the kind.
struct Prompt {
  std::string question;
  std::vector<SourceFile> files;
};

Prompt from_prompt(std::string_view text);

}  // namespace ask
