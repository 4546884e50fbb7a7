#include "openai/loader.hpp"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <dlfcn.h>
#include <glob.h>
#include <link.h>
#include <sys/stat.h>

#include "openai/elf.hpp"

namespace tovren_mapstead::openai {
namespace {

namespace fs = std::filesystem;

std::string loader_text() {
  const char* const text = dlerror();  // NOLINT(concurrency-mt-unsafe): it is per thread
  return text == nullptr ? "unknown error of the dynamic loader" : text;
}

// Returns the loader's folders: LD_LIBRARY_PATH, the run path of the program, the system's folders.
std::vector<fs::path> loader_folders() {
  void* const program = dlopen(nullptr, RTLD_LAZY);
  Dl_serinfo size{};
  if (program == nullptr || dlinfo(program, RTLD_DI_SERINFOSIZE, &size) != 0) return {};
  // The loader writes the entries behind the structure, and reports the size of both.
  std::vector<std::max_align_t> memory(size.dls_size / sizeof(std::max_align_t) + 1);
  auto* const info = reinterpret_cast<Dl_serinfo*>(memory.data());
  std::vector<fs::path> folders;
  if (dlinfo(program, RTLD_DI_SERINFOSIZE, info) == 0 &&
      dlinfo(program, RTLD_DI_SERINFO, info) == 0) {
    for (unsigned i = 0; i < info->dls_cnt; ++i)
      folders.emplace_back(info->dls_serpath[i].dls_name);
  }
  dlclose(program);
  return folders;
}

// Adds the folders that ldconfig puts into the loader's cache, which RTLD_DI_SERINFO leaves out.
void add_configured_folders(const fs::path& file, std::vector<fs::path>& folders, int depth = 0) {
  constexpr int MAX_DEPTH = 4;
  constexpr std::string_view INCLUDE = "include ";
  std::ifstream lines(file);
  for (std::string line; depth < MAX_DEPTH && std::getline(lines, line);) {
    line.erase(std::min(line.find('#'), line.size()));
    line.erase(line.find_last_not_of(" \t") + 1);
    if (line.starts_with('/')) folders.emplace_back(line);
    if (!line.starts_with(INCLUDE)) continue;
    glob_t matches{};
    const std::string pattern = file.parent_path() / line.substr(INCLUDE.size());
    // The locale affects only the order. NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (glob(pattern.c_str(), 0, nullptr, &matches) == 0) {
      for (std::size_t i = 0; i < matches.gl_pathc; ++i) {
        add_configured_folders(matches.gl_pathv[i], folders, depth + 1);
      }
    }
    globfree(&matches);
  }
}

// Returns whether only owner and group can replace the file. In a sticky folder, such as /tmp,
// other users can add files but not replace them.
bool guarded(const fs::path& file) {
  for (fs::path place = file; place != place.root_path(); place = place.parent_path()) {
    struct stat status {};

    if (stat(place.c_str(), &status) != 0) return false;
    const bool sticky = (status.st_mode & S_ISVTX) != 0 && place != file.parent_path();
    if ((status.st_mode & S_IWOTH) != 0 && !sticky) return false;
  }
  return true;
}

// Rejects relative paths and files that any user can replace. A path under /proc may be the working
// folder.
bool trusted(const fs::path& file) {
  std::error_code error;
  return file.is_absolute() && *std::next(file.begin()) != "proc" &&
         fs::is_regular_file(file, error) && guarded(file) && guarded(fs::canonical(file, error)) &&
         !error;
}

std::optional<fs::path> search() {
  std::vector<fs::path> folders = loader_folders();
  add_configured_folders("/etc/ld.so.conf", folders);
  for (const fs::path& folder : folders) {
    if (trusted(folder / LIBRARY_NAME)) return folder / LIBRARY_NAME;
  }
  return std::nullopt;
}

const Library* enter(EntryPoint entry_point) {
  try {
    return entry_point();
  } catch (...) {
    throw LoadError("the entry point of the OpenAI client library raised an error");
  }
}

const Library& load() {
  const auto& path = find_library();
  if (!path) throw LoadError(std::string("cannot find ") + LIBRARY_NAME + "; install it");
  if (is_truncated(*path)) throw LoadError(path->string() + " is truncated; install it again");
  void* const object = dlopen(path->c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (object == nullptr) throw LoadError(loader_text());
  void* const symbol = dlsym(object, ENTRY_POINT);
  if (symbol == nullptr) throw LoadError(loader_text());
  const Library* const library = enter(reinterpret_cast<EntryPoint>(symbol));
  if (library == nullptr) throw LoadError(path->string() + ": the entry point returns no library");
  // With another version, only the number can be read.
  if (library->interface_version != INTERFACE_VERSION) {
    throw LoadError(path->string() + ": made for version " +
                    std::to_string(library->interface_version) + " of the interface, not " +
                    std::to_string(INTERFACE_VERSION));
  }
  if (library->open == nullptr)
    throw LoadError(path->string() + ": the library cannot open a client");
  return *library;
}

}  // namespace

const std::optional<fs::path>& find_library() {
  static const std::optional<fs::path> path = search();
  return path;
}

const Library& load_library() {
  static const Library& library = load();  // a call after a failure tries again
  return library;
}

}  // namespace tovren_mapstead::openai
