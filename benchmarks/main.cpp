// The benchmarks' command: bench [NAME]... [--json FILE] [--against FILE]. Prints a line a figure,
// and how it compares with an earlier run that --json wrote.
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/utsname.h>

#include "endpoint.hpp"
#include "figure.hpp"

namespace {

using bench::Figure;

std::string machine() {
  std::ifstream cpus("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpus, line) && !line.starts_with("model name")) {
  }
  utsname system{};
  uname(&system);
  return line.substr(std::min(line.size(), line.find(':') + 2)) + ", " +
         std::to_string(std::thread::hardware_concurrency()) + " threads, Linux " + system.release +
         ", compiler " __VERSION__;
}

using Run = std::map<std::string, bench::Earlier>;

Run read_run(const std::string& file) {
  Run run;
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file);
  const auto json = nlohmann::json::parse(in);
  for (const auto& figure : json.at("figures")) {
    const double judged = figure.value("ratio", figure.at("ours").get<double>());
    run[figure.at("name")] = {.judged = judged, .spread = figure.value("spread", 0.0)};
  }
  return run;
}

void print(const Figure& figure, const Run& against) {
  std::cout << std::left << std::setw(30) << figure.name << std::right << std::fixed
            << std::setprecision(2) << std::setw(14) << figure.ours;
  if (figure.floor) {
    std::cout << std::setw(14) << *figure.floor << std::setw(8) << figure.judged();
  } else {
    std::cout << std::setw(14) << '-' << std::setw(8) << '-';
  }
  std::cout << "  " << figure.unit;
  if (const auto earlier = against.find(figure.name); earlier != against.end()) {
    std::cout << ", was " << earlier->second.judged << ": " << verdict(figure, earlier->second);
  }
  std::cout << std::endl;
}

nlohmann::ordered_json to_json(const Figure& figure) {
  nlohmann::ordered_json json{{"name", figure.name}, {"ours", figure.ours}};
  if (figure.floor) json.update({{"floor", *figure.floor}, {"ratio", figure.judged()}});
  json.update({{"unit", figure.unit},
               {"spread", figure.spread},
               {figure.at_least ? "at_least" : "at_most", figure.limit},
               {"met", figure.met()}});
  return json;
}

Figure heap(const std::string& url) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(("'" HEAP "' " + url).c_str(), "r"),
                                                   pclose);
  long bytes = 0;
  if (!pipe || std::fscanf(pipe.get(), "%ld", &bytes) != 1)
    throw std::runtime_error("cannot measure the heap");
  return {
      .name = "memory_call", .ours = static_cast<double>(bytes) / 1024, .unit = "KB", .limit = 256};
}

int run(const std::vector<std::string>& arguments) {
  std::vector<std::string> names;
  std::map<std::string, std::string> files{{"--json", ""}, {"--against", ""}};
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto option = files.find(arguments[i]);
    if (option == files.end()) {
      names.push_back(arguments[i]);
    } else if (++i < arguments.size()) {
      option->second = arguments[i];
    } else {
      std::cerr << "bench: " << option->first << " needs the name of a file\n";
      return 2;
    }
  }
  const std::string& file = files["--json"];
  const Run against = files["--against"].empty() ? Run() : read_run(files["--against"]);
  const bench::Wanted wanted = [&](const std::string& name) {
    return names.empty() || std::ranges::any_of(names, [&](const std::string& n) {
             return name == n || name.starts_with(n + "_");
           });
  };
  std::vector<Figure> figures;
  const bench::Report report = [&](const Figure& figure) {
    print(figure, against);
    figures.push_back(figure);
  };
  std::cout << "# " << machine() << "\n# NAME OURS FLOOR RATIO UNIT" << std::endl;
  const bench::Endpoint endpoint;
  bench::measure_calls(endpoint, wanted, report);
  bench::measure_instructions(endpoint, wanted, report);
  bench::measure_latency(endpoint, wanted, report);
  bench::measure_connections(endpoint, wanted, report);
  bench::measure_streams(endpoint, wanted, report);
  if (wanted("memory_call")) report(heap(endpoint.url()));
  bench::measure_decoding(wanted, report);
  if (figures.empty()) {
    std::cerr << "bench: no figure of that name\n";
    return 2;
  }
  if (!file.empty()) {
    nlohmann::ordered_json json{{"machine", machine()},
                                {"figures", nlohmann::ordered_json::array()}};
    for (const Figure& figure : figures) json["figures"].push_back(to_json(figure));
    if (!(std::ofstream(file) << json.dump(2) << '\n').flush()) {
      std::cerr << "bench: cannot write " << file << '\n';
      return 1;
    }
  }
  for (const Figure& figure : figures) {
    if (!figure.met())
      std::cerr << "bench: " << figure.name << " is not what it should be, "
                << (figure.at_least ? "at least " : "at most ") << figure.limit << '\n';
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments == std::vector<std::string>{"--serve"}) return bench::serve();
    if (arguments.size() == 5 && arguments[0] == "--repeat") {
      return bench::repeat(arguments[1], arguments[2], arguments[3] == "ours",
                           std::stoi(arguments[4]));
    }
    if (arguments.size() == 4 && arguments[0] == "--streams") {
      return bench::run_streams(arguments[1], arguments[2] == "ours", std::stoi(arguments[3]));
    }
    return run(arguments);
  } catch (const std::exception& error) {
    std::cerr << "bench: " << error.what() << '\n';
    return 1;
  }
}
