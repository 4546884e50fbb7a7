// replay FOLDER VARIANTS: feeds a fuzzer the files of a folder, its seeds, and so many variants of
// each, the same ones in every run; also what the catalogue of faults sends, with a hundredth of
// the variants.
#include <filesystem>
#include <fstream>

#include "faults/catalogue.hpp"
#include "fuzz.hpp"

namespace {

void feed(const std::string& seed, int variants) {
  std::mt19937 random(1);
  for (int variant = 0; variant <= variants; ++variant) {
    std::string text = seed;
    const auto some = [&] { return random() % (text.size() + 1); };
    if (variant > 0) text.replace(some(), random() % 4, seed, some(), random() % 8);
    if (variant % 4 == 3) text.resize(some());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  }
}

}  // namespace

int main(int /*count*/, char** arguments) {
  const int variants = std::stoi(arguments[2]);
  for (const auto& entry : std::filesystem::directory_iterator(arguments[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    feed({std::istreambuf_iterator<char>(file), {}}, variants);
  }
  for (const faults::Fault& fault : faults::catalogue()) {
    // The first byte picks among ways to use the rest.
    if (fault.bytes.size() < 10'000) feed("1" + fault.bytes, variants / 100);
  }
}
