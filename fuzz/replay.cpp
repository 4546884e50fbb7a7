// replay FOLDER VARIANTS: feeds a fuzzer the files of a folder, its seeds, and so many variants of
// each, the same ones in every run.
#include <filesystem>
#include <fstream>

#include "fuzz.hpp"

int main(int, char** arguments) {
  std::mt19937 random(1);
  int fed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(arguments[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string seed(std::istreambuf_iterator<char>(file), {});
    for (int variant = 0; variant <= std::stoi(arguments[2]); ++variant, ++fed) {
      std::string text = seed;
      const auto some = [&] { return random() % (text.size() + 1); };
      if (variant > 0) text.replace(some(), random() % 4, seed, some(), random() % 8);
      if (variant % 4 == 3) text.resize(some());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    }
  }
  return fed == 0 ? 1 : 0;
}
