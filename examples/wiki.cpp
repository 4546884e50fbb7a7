// Writes a Markdown page about each folder of a source tree, eight at a time. Ctrl-C stops it and
// keeps the finished pages.
//   TOVREN_LLM_API_KEY=... wiki URL MODEL REPOSITORY OUT
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <thread>
#include <vector>

#include <tovren_mapstead/engines/http/utf8.hpp>
#include <tovren_mapstead/engines/llm.hpp>

namespace fs = std::filesystem;
namespace engines = tovren_mapstead::engines;

namespace {

// Returns folders and the start of their text files. Skips links, build trees, hidden files and
// `out`.
auto excerpts_of(const fs::path& root, const fs::path& out) {
  std::map<std::string, std::string> folders;
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    const fs::path name = "." / it->path().lexically_relative(root);
    if (it->is_symlink() || it->path() == out || name.filename().string().starts_with('.') ||
        fs::exists(it->path() / "CMakeCache.txt")) {
      it.disable_recursion_pending();
    } else if (it->is_regular_file()) {
      std::string text(4000, '\0');
      std::ifstream(it->path(), std::ios::binary).read(text.data(), 4000);
      text.resize(text.rfind('\n') + 1);  // at the end of a line, so that no character is cut
      text.insert(0, "\n=== " + name.string() + "\n");
      const bool is_text = engines::http::is_utf8(text) && text.find('\0') == std::string::npos;
      std::string& all = folders[name.parent_path().string()];
      if (is_text && all.size() < 200'000) all += text;
    }
  }
  return std::vector<std::pair<std::string, std::string>>(folders.begin(), folders.end());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 5) throw std::invalid_argument("usage: wiki URL MODEL REPOSITORY OUT");
    static std::atomic<bool> interrupted = false;  // lock-free, so a signal handler may set it
    std::signal(SIGINT, [](int) { interrupted = true; });
    const tovren_mapstead::Config config{.generation = {.base_url = argv[1], .model = argv[2]}};
    const engines::llm::LLMClient client = engines::llm::build_llm_client_from_config(config);
    const fs::path out = fs::weakly_canonical(argv[4]);
    fs::create_directories(out);  // fails before the first call, which costs money
    const auto folders = excerpts_of(fs::canonical(argv[3]), out);
    std::vector<std::string> links(folders.size());
    std::atomic<std::size_t> next = 0;
    std::atomic<std::size_t> done = 0;
    const auto work = [&] {
      for (std::size_t i = next++; i < folders.size() && !interrupted; i = next++) {
        const auto& [folder, text] = folders[i];
        try {
          const auto page = client.chat({engines::llm::user("Describe this:" + text)},
                                        {.should_stop = [] { return interrupted.load(); }});
          fs::create_directories(out / folder);
          std::ofstream file(out / folder / "wiki.md");
          if (!(file << page.content() << std::endl)) throw std::runtime_error("cannot be written");
          links[i].append("- [" + folder + "](<").append(folder + "/wiki.md>)\n");
          const std::size_t share = 40 * ++done / folders.size();
          std::cerr << "\r[" + std::string(share, '#') + std::string(40 - share, ' ') + "]";
        } catch (const std::exception& error) {
          std::cerr << "\n" + folder + ": " + error.what() + "\n";
        }
      }
    };
    for (std::vector<std::jthread> pool(8); auto& t : pool) t = std::jthread(work);  // joins them
    std::ofstream index(out / "index.md");
    for (const std::string& link : links) index << link;
    if (!index.flush()) throw std::runtime_error("cannot write the index");
    std::cerr << "\n" << done << " of " << folders.size() << " pages\n";
    return interrupted ? 130 : done == folders.size() ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
