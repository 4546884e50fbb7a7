#include "ask/sources.hpp"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <optional>
#include <sstream>
#include <system_error>

#include "tovren_mapstead/engines/http/utf8.hpp"

namespace ask {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view QUESTION = "Question: ";
constexpr std::string_view FILE_MARK = "=== ";

bool skipped(const fs::directory_entry& entry) {
  std::error_code error;
  if (entry.is_symlink(error)) return true;
  if (!entry.is_directory(error)) return !entry.is_regular_file(error);
  return entry.path().filename().string().starts_with('.') ||
         fs::exists(entry.path() / "CMakeCache.txt", error);
}

std::optional<std::string> read_text(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  std::string text = std::move(bytes).str();
  const bool binary =
      text.find('\0') != std::string::npos || !tovren_mapstead::engines::http::is_utf8(text);
  if (!file || binary) return std::nullopt;
  return text;
}

}  // namespace

std::vector<SourceFile> gather(const fs::path& root, std::size_t budget) {
  std::error_code error;
  std::vector<fs::path> paths;
  for (auto it = fs::recursive_directory_iterator(
           root, fs::directory_options::skip_permission_denied, error);
       !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
    if (skipped(*it)) {
      it.disable_recursion_pending();
    } else if (it->is_regular_file(error)) {
      paths.push_back(it->path());
    }
  }
  std::ranges::sort(paths);
  std::vector<SourceFile> files;
  for (const fs::path& path : paths) {
    const auto size = fs::file_size(path, error);
    if (error || size == 0 || size > budget) continue;
    if (auto text = read_text(path); text && text->size() <= budget) {
      budget -= text->size();
      files.push_back({.path = path.lexically_relative(root).string(), .text = std::move(*text)});
    }
  }
  return files;
}

std::string to_prompt(const std::vector<SourceFile>& files, std::string_view question) {
  std::string text(QUESTION);
  text.append(question).append("\n");
  for (const SourceFile& file : files) {
    text.append("\n").append(FILE_MARK).append(file.path).append(" (");
    text.append(std::to_string(file.text.size())).append(" bytes)\n").append(file.text);
  }
  return text;
}

Prompt from_prompt(std::string_view text) {
  Prompt prompt;
  const auto next_line = [&] {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    return line;
  };
  if (!text.starts_with(QUESTION)) return {.question = std::string(text), .files = {}};
  // The question may have several lines. It ends before the first file.
  const std::size_t first = std::min(text.find("\n\n" + std::string(FILE_MARK)), text.size());
  prompt.question = text.substr(QUESTION.size(), first - QUESTION.size());
  text.remove_prefix(std::min(text.size(), first + 1));
  while (!text.empty()) {
    next_line();
    const std::string_view head = next_line();
    const std::size_t open = head.rfind(" (");
    if (!head.starts_with(FILE_MARK) || open == std::string_view::npos) break;
    std::size_t size = 0;
    std::from_chars(head.data() + open + 2, head.data() + head.size(), size);
    const std::string_view body = text.substr(0, size);
    text.remove_prefix(body.size());
    prompt.files.push_back(
        {.path = std::string(head.substr(FILE_MARK.size(), open - FILE_MARK.size())),
         .text = std::string(body)});
  }
  return prompt;
}

}  // namespace ask
