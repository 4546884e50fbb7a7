// What one call costs its thread in CPU time, beside the least that it could cost.
#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tovren_mapstead/engines/llm.hpp"

#include "endpoint.hpp"
#include "figure.hpp"
#include "floor.hpp"
#include "measure.hpp"

namespace bench {
namespace {

namespace llm = tovren_mapstead::engines::llm;

struct Work {
  const char* name;
  const char* path;
  bool stream;
  std::size_t prompt_bytes;
  int rounds;  // many and short, so that the two of a round see the same machine
  int calls;   // a round
  double limit;
};

constexpr std::array WORKS{
    Work{"stream_50", "/stream/50", true, 100, 101, 15, 1.25},
    Work{"stream_1000", "/stream/1000", true, 100, 101, 5, 0.8},
    Work{"stream_20000", "/stream/20000", true, 100, 51, 1, 0.8},
    Work{"whole_small", "/whole/1", false, 100, 101, 50, 1.25},
    Work{"whole_20k", "/whole/20000", false, 100, 101, 25, 1.3},
    Work{"prompt_100k", "/whole/1", false, 100'000, 101, 13, 1.5},
    Work{"prompt_1m", "/whole/1", false, 1'000'000, 51, 5, 1.5},
    Work{"paced_200", "/paced/200", true, 100, 25, 1, 1.2},
};

constexpr int THREAD_ROUNDS = 25;
constexpr int THREADS = 8;

// Like source code: short lines, some quotes.
std::string prompt_of(std::size_t bytes) {
  std::string text;
  while (text.size() < bytes) text += "  if (name == \"value\") return lookup(name);\n";
  text.resize(bytes);
  return text;
}

/// The two subjects, ready to be called. The client has all that a careful caller gives it.
class Subjects {
 public:
  Subjects(const std::string& url, const Work& work)
      : _prompt(prompt_of(work.prompt_bytes)),
        _messages{llm::user(_prompt)},
        _client({.base_url = url + work.path, .model = "m", .api_key = "k", .stream = work.stream}),
        _floor(url + work.path, work.stream) {
    const llm::LLMResult result = ours();
    const Answer answer = floor();
    if (answer.content.find(result.content()) == std::string::npos ||
        answer.model != result.model() || answer.finish_reason != result.finish_reason() ||
        answer.completion_tokens != result.completion_tokens()) {
      throw std::runtime_error("the client and the floor disagree");
    }
  }

  llm::LLMResult ours() const { return _client.chat(_messages, _options); }

  Answer floor() { return _floor.call(_prompt); }

 private:
  const std::string _prompt;
  const llm::Messages _messages;
  const llm::LLMClient _client;
  const llm::ChatOptions _options{
      .should_stop = [] { return false; },
      .deadline = std::chrono::steady_clock::now() + std::chrono::hours(1)};
  Floor _floor;
};

template <class Call>
double cpu_us_of(int calls, Call call) {
  const double start = cpu_s();
  for (int i = 0; i < calls; ++i) call();
  return 1e6 * (cpu_s() - start) / calls;
}

struct Compared {
  double ours;
  double floor;
  double ratio;  // the median of the rounds' own
  double spread;
};

// In turn, so that a machine whose speed drifts spoils both alike.
template <class Ours, class Floors>
Compared compare(int rounds, Ours ours, Floors floor) {
  std::vector<double> mine;
  std::vector<double> least;
  std::vector<double> ratios;
  for (int round = 0; round < rounds; ++round) {
    mine.push_back(ours());
    least.push_back(floor());
    ratios.push_back(mine.back() / least.back());
  }
  return {.ours = median(mine),
          .floor = median(least),
          .ratio = median(ratios),
          .spread = spread(ratios)};
}

Figure measure(const std::string& url, const Work& work) {
  Subjects subjects(url, work);
  const auto [ours, floor, ratio, apart] = compare(
      work.rounds, [&] { return cpu_us_of(work.calls, [&] { std::ignore = subjects.ours(); }); },
      [&] { return cpu_us_of(work.calls, [&] { std::ignore = subjects.floor(); }); });
  return {.name = work.name,
          .ours = ours,
          .floor = floor,
          .ratio = ratio,
          .unit = "us",
          .limit = work.limit,
          .spread = apart};
}

// How many calls a second some threads make together.
template <class MakeCall>
double rate(MakeCall make_call) {
  constexpr int CALLS = 300;
  std::vector<std::jthread> threads;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < THREADS; ++i) {
    threads.emplace_back([&] {
      auto call = make_call();
      for (int n = 0; n < CALLS; ++n) call();
    });
  }
  threads.clear();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  return THREADS * CALLS / took.count();
}

Figure measure_threads(const std::string& url) {
  const std::string base = url + "/whole/1";
  const llm::LLMClient client({.base_url = base, .model = "m", .api_key = "k", .stream = false});
  const llm::Messages messages{llm::user(prompt_of(100))};
  const auto ours_once = [&] { std::ignore = client.chat(messages); };
  const auto make_floor = [&] {
    return [floor = std::make_shared<Floor>(base, false), prompt = prompt_of(100)] {
      std::ignore = floor->call(prompt);
    };
  };
  const auto [ours, floor, ratio, apart] = compare(
      THREAD_ROUNDS, [&] { return rate([&] { return ours_once; }); },
      [&] { return rate(make_floor); });
  return {.name = "threads_8",
          .ours = ours,
          .floor = floor,
          .ratio = ratio,
          .unit = "calls/s",
          .limit = 0.8,
          .at_least = true,
          .spread = apart};
}

}  // namespace

void measure_calls(const Endpoint& endpoint, const Wanted& wanted, const Report& report) {
  for (const Work& work : WORKS) {
    if (wanted(work.name)) report(measure(endpoint.url(), work));
  }
  if (wanted("threads_8")) report(measure_threads(endpoint.url()));
}

int repeat(const std::string& url, const std::string& name, bool ours, int count) {
  const auto* const work = std::ranges::find(WORKS, name, &Work::name);
  if (work == WORKS.end()) return 2;
  Subjects subjects(url, *work);
  for (int i = 0; i < count; ++i) {
    if (ours) {
      std::ignore = subjects.ours();
    } else {
      std::ignore = subjects.floor();
    }
  }
  return 0;
}

}  // namespace bench
