// Many slow streams at a time in one process, each on a thread of its own: what an event costs, and
// what memory a call takes that waits for the next one.
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "tovren_mapstead/engines/llm.hpp"

#include "endpoint.hpp"
#include "figure.hpp"
#include "floor.hpp"

namespace bench {
namespace {

namespace llm = tovren_mapstead::engines::llm;
using namespace std::chrono_literals;

constexpr int MANY = 500;
constexpr int FEW = 50;
constexpr int EVENTS = 100;
constexpr const char* PROMPT = "hello";

// Of the whole process, in microseconds.
double process_cpu_us() {
  rusage use{};
  getrusage(RUSAGE_SELF, &use);
  const auto us = [](const timeval& time) {
    return 1e6 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec);
  };
  return us(use.ru_utime) + us(use.ru_stime);
}

double resident_kb() {
  double size = 0;
  double resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * static_cast<double>(getpagesize()) / 1024;
}

struct Cost {
  double cpu_us = 0;     // an event
  double memory_kb = 0;  // a call
};

Cost in_a_process(const std::string& url, bool ours, int count) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string command =
      "'" + program + "' --streams " + url + (ours ? " ours " : " floor ") + std::to_string(count);
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  Cost cost;
  if (!pipe || std::fscanf(pipe.get(), "%lf %lf", &cost.cpu_us, &cost.memory_kb) != 2) {
    throw std::runtime_error("cannot run many streams");
  }
  return cost;
}

}  // namespace

int run_streams(const std::string& url, bool ours, int count) {
  const std::string base = url + "/slow/" + std::to_string(EVENTS);
  const llm::LLMClient client({.base_url = base, .model = "m", .api_key = "k"});
  const llm::Messages messages{llm::user(PROMPT)};
  std::latch started(count + 1);
  std::latch measured(1);
  std::vector<std::jthread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&] {
      started.arrive_and_wait();
      measured.wait();
      if (ours) {
        std::ignore = client.chat(messages, {.should_stop = [] { return false; }});
      } else {
        std::ignore = Floor(base, true).call(PROMPT);
      }
    });
  }
  started.arrive_and_wait();
  const double memory_kb = resident_kb();
  const double cpu_us = process_cpu_us();
  measured.count_down();
  std::this_thread::sleep_for(1s);  // half of a stream
  const double during_kb = resident_kb();
  threads.clear();
  std::cout << (process_cpu_us() - cpu_us) / (count * EVENTS) << ' '
            << (during_kb - memory_kb) / count << '\n';
  return 0;
}

void measure_streams(const Endpoint& endpoint, const Wanted& wanted, const Report& report) {
  if (!wanted("streams_500")) return;
  const Cost ours = in_a_process(endpoint.url(), true, MANY);
  const Cost floor = in_a_process(endpoint.url(), false, MANY);
  const Cost few = in_a_process(endpoint.url(), true, FEW);
  report({.name = "streams_500_event",
          .ours = ours.cpu_us,
          .floor = floor.cpu_us,
          .unit = "us",
          .limit = 1.3});
  report({.name = "streams_500_memory",
          .ours = ours.memory_kb,
          .floor = floor.memory_kb,
          .unit = "KB",
          .limit = 1.5});
  report({.name = "streams_500_growth",
          .ours = ours.cpu_us / few.cpu_us,
          .unit = "times 50 streams",
          .limit = 1.3});
}

}  // namespace bench
