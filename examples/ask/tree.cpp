#include "ask/tree.hpp"

#include <algorithm>
#include <array>
#include <fstream>
#include <string_view>
#include <system_error>

#include "tovren_mapstead/engines/http/utf8.hpp"

namespace ask {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t MAX_FILES = 200'000;  // a bound for time and memory, far above most trees

// Files by which build trees, caches and installed environments are known.
constexpr std::array MARKERS{"CMakeCache.txt", "CACHEDIR.TAG", "pyvenv.cfg"};
constexpr std::array<std::string_view, 2> INSTALLED{"node_modules", "__pycache__"};

bool skipped(const fs::directory_entry& entry) {
  std::error_code error;
  const std::string name = entry.path().filename().native();
  if (name.starts_with('.') || entry.is_symlink(error)) return true;
  if (!entry.is_directory(error)) return !entry.is_regular_file(error);
  return std::ranges::count(INSTALLED, name) > 0 || std::ranges::any_of(MARKERS, [&](auto marker) {
           return fs::exists(entry.path() / marker, error);
         });
}

}  // namespace

std::vector<std::string> list(const fs::path& root) {
  std::vector<std::string> paths;
  const std::size_t prefix = (root / "").native().size();
  fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied);
  std::error_code error;
  for (; it != fs::recursive_directory_iterator() && paths.size() < MAX_FILES;
       it.increment(error)) {
    if (skipped(*it)) {
      it.disable_recursion_pending();
    } else if (it->is_regular_file(error)) {
      paths.push_back(it->path().native().substr(prefix));
    }
  }
  std::ranges::sort(paths);
  return paths;
}

std::optional<std::string> read_text(const fs::path& path) {
  std::error_code error;
  const auto size = fs::file_size(path, error);
  if (error || size == 0 || size > MAX_FILE_BYTES) return std::nullopt;
  std::string text(size, '\0');
  std::ifstream file(path, std::ios::binary);
  file.read(text.data(), static_cast<std::streamsize>(size));
  text.resize(static_cast<std::size_t>(file.gcount()));
  const bool is_text =
      text.find('\0') == std::string::npos && tovren_mapstead::engines::http::is_utf8(text);
  return is_text && !text.empty() ? std::optional(std::move(text)) : std::nullopt;
}

}  // namespace ask
