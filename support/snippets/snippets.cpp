#include "snippets/snippets.hpp"

#include <stdexcept>

namespace snippets {

void check(bool holds, const std::string& about, int line) {
  if (!holds) throw std::logic_error("line " + std::to_string(line) + " does not hold: " + about);
}

void carried(const llm::LLMConfig& config, const std::string& origin, const std::string& path,
             int line) {
  std::string meant_for;
  const auto note = [&](const std::string& host) { meant_for = host; };
  const auto detour = loopback::detour(server.url(), http::make_transport(), note);
  const llm::LLMClient somebodys(config, {.transport = detour});
  std::ignore = somebodys.chat({llm::user("Hello")});
  check(meant_for == origin, meant_for, line);
  check(server.asked().back().target == path, server.asked().back().target, line);
}

int run(const std::vector<std::pair<const char*, void (*)()>>& fragments) {
  int failed = 0;
  setenv("no_proxy", "127.0.0.1,localhost,.invalid", 1);  // before the first transport is made
  for (const auto& [name, fragment] : fragments) {
    server.forget();
    try {
      fragment();
    } catch (const std::exception& error) {
      ++failed;
      std::fprintf(stderr, "%s: %s\n", name, error.what());
    }
  }
  return failed == 0 ? 0 : 1;
}

}  // namespace snippets
