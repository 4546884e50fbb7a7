// Writes a Markdown page about each folder of a source tree, eight at a time. Ctrl-C and a wrong
// key stop it; the finished pages stay. Slows down when the endpoint says that it is asked too
// often.
//   TOVREN_LLM_API_KEY=... wiki URL MODEL REPOSITORY OUT
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <tovren_mapstead/engines/http/bounds.hpp>
#include <tovren_mapstead/engines/http/retry.hpp>
#include <tovren_mapstead/engines/http/utf8.hpp>
#include <tovren_mapstead/engines/llm.hpp>

namespace fs = std::filesystem;
namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

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
      const bool is_text = http::is_utf8(text) && text.find('\0') == std::string::npos;
      std::string& all = folders[name.parent_path().string()];
      if (is_text && all.size() < 200'000) all += text;
    }
  }
  return std::vector<std::pair<std::string, std::string>>(folders.begin(), folders.end());
}

// The pause between requests, which all threads share.
class Pace {
 public:
  // Waits until the next request may be sent. Throws http::Stopped.
  void wait(const http::StopTest& should_stop) {
    std::unique_lock lock(_mutex);
    const std::chrono::duration<double> left = _resume - http::Clock::now();
    lock.unlock();
    http::wait_unless_stopped(left.count(), should_stop, std::nullopt);
  }

  // Makes all threads pause, twice as long as the last time, a minute at most.
  void slow_down() {
    const std::lock_guard lock(_mutex);
    const auto now = http::Clock::now();
    if (now < _resume) return;  // another thread's refusal of the same moment
    _resume = now + _pause;
    _pause = std::min<http::Clock::duration>(2 * _pause, std::chrono::minutes(1));
  }

 private:
  std::mutex _mutex;
  http::Clock::duration _pause = std::chrono::seconds(4);
  http::Clock::time_point _resume{};
};

// Returns a page about a folder. Throws LLMError: for too many requests after the last try only.
std::string describe(const llm::LLMClient& client, const std::string& text, Pace& pace,
                     const http::StopTest& should_stop) {
  for (int tries = 5;; --tries) {
    pace.wait(should_stop);
    try {
      return client.chat({llm::user("Describe this:" + text)}, {.should_stop = should_stop})
          .content();
    } catch (const llm::LLMError& error) {
      if (http::status_of(error) != 429 || tries == 1) throw;
      pace.slow_down();
    }
  }
}

// Returns whether the endpoint does not accept the key, so that no other request can succeed.
bool is_refusal(const std::exception& error) {
  const int status = http::status_of(error).value_or(0);
  return status == 401 || status == 403;
}

void write(const fs::path& path, const std::string& text) {
  std::ofstream file(path);
  if (!(file << text << std::flush)) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

// NOLINTNEXTLINE(readability-function-cognitive-complexity): it reads from top to bottom
int main(int argc, char** argv) {
  try {
    if (argc != 5) throw std::invalid_argument("usage: wiki URL MODEL REPOSITORY OUT");
    static std::atomic<bool> interrupted = false;  // lock-free, so a signal handler may set it
    std::signal(SIGINT, [](int) { interrupted = true; });
    std::atomic<bool> refused = false;
    const auto should_stop = [&] { return interrupted.load() || refused.load(); };
    const llm::LLMClient client =
        llm::build_llm_client_from_config({.base_url = argv[1], .model = argv[2]});
    const fs::path out = fs::weakly_canonical(argv[4]);
    fs::create_directories(out);  // fails before the first call, which costs money
    const auto folders = excerpts_of(fs::canonical(argv[3]), out);
    std::vector<std::string> links(folders.size());
    std::atomic<std::size_t> next = 0;
    std::atomic<std::size_t> done = 0;
    Pace pace;
    const auto work = [&] {
      for (std::size_t i = next++; i < folders.size() && !should_stop(); i = next++) {
        const auto& [folder, text] = folders[i];
        try {
          const std::string page = describe(client, text, pace, should_stop);
          fs::create_directories(out / folder);
          write(out / folder / "wiki.md", page + "\n");
          links[i].append("- [" + folder + "](<").append(folder + "/wiki.md>)\n");
          const std::size_t share = 40 * ++done / folders.size();
          std::cerr << "\r[" + std::string(share, '#') + std::string(40 - share, ' ') + "]";
        } catch (const std::exception& error) {
          // A refusal is told once, and what it stopped is not told at all.
          if (is_refusal(error) ? refused.exchange(true) : refused.load()) return;
          std::cerr << "\n" + folder + ": " + error.what() + "\n";
        }
      }
    };
    for (std::vector<std::jthread> pool(8); auto& t : pool) t = std::jthread(work);  // joins them
    write(out / "index.md", std::accumulate(links.begin(), links.end(), std::string()));
    std::cerr << "\n" << done << " of " << folders.size() << " pages\n";
    return interrupted ? 130 : done == folders.size() ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
