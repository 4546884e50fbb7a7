// What one call costs in instructions, which no other load on the machine changes. Callgrind counts
// whole processes, so that one that calls more often, less one that calls less often, is the calls.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "endpoint.hpp"
#include "figure.hpp"

namespace bench {
namespace {

namespace fs = std::filesystem;

std::uint64_t instructions(const std::string& url, const std::string& name, bool ours, int calls) {
  const fs::path out = fs::temp_directory_path() / ("callgrind." + std::to_string(calls) + name);
  const std::string command = "valgrind --tool=callgrind --callgrind-out-file=" + out.string() +
                              " '" + fs::read_symlink("/proc/self/exe").string() + "' --repeat " +
                              url + " " + name + (ours ? " ours " : " floor ") +
                              std::to_string(calls) + " >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("valgrind cannot be run");
  std::ifstream file(out);
  std::string word;
  while (file >> word && word != "summary:" && word != "totals:") {
  }
  std::uint64_t count = 0;
  file >> count;
  fs::remove(out);
  return count;
}

double per_call(const std::string& url, const std::string& name, bool ours) {
  constexpr int FEW = 5;
  constexpr int MANY = 25;
  return static_cast<double>(instructions(url, name, ours, MANY) -
                             instructions(url, name, ours, FEW)) /
         (MANY - FEW);
}

}  // namespace

void measure_instructions(const Endpoint& endpoint, const Wanted& wanted, const Report& report) {
  for (const auto& [work, limit] : {std::pair("stream_1000", 0.5), std::pair("whole_small", 1.2)}) {
    const std::string name = std::string(work) + "_instr";
    if (!wanted(name)) continue;
    report({.name = name,
            .ours = per_call(endpoint.url(), work, true),
            .floor = per_call(endpoint.url(), work, false),
            .unit = "instructions",
            .limit = limit});
  }
}

}  // namespace bench
