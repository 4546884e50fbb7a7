// Feeds a fuzzer what it is to remember: every file of a folder, and variants of each that are the
// same on every run. replay FOLDER VARIANTS
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz.hpp"

namespace {

void feed(const std::string& text) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

}  // namespace

int main(int, char** arguments) {
  std::vector<std::string> seeds;
  for (const auto& entry : std::filesystem::directory_iterator(arguments[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator(file), std::istreambuf_iterator<char>());
  }
  std::ranges::sort(seeds);
  fuzz::require(!seeds.empty(), "no seeds");
  std::mt19937 random(1);
  const auto below = [&](std::size_t end) { return random() % (end + 1); };
  for (const std::string& seed : seeds) {
    feed(seed);
    for (int left = std::stoi(arguments[2]); left > 0; --left) {
      std::string text = seed;
      const std::string& other = seeds[random() % seeds.size()];
      const std::size_t at = below(text.size());
      text.replace(at, below(5), other, below(other.size()), below(5));
      if (const std::size_t place = below(text.size()); place < text.size()) text[place] = text[below(text.size() - 1)];
      feed(text);
    }
  }
  return 0;
}
