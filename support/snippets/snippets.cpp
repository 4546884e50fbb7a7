#include "snippets/snippets.hpp"

#include <stdexcept>

namespace snippets {

void check(bool holds, const std::string& about, int line) {
  if (!holds) throw std::logic_error("line " + std::to_string(line) + " does not hold: " + about);
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
