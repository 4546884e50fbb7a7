// What runs inside the process, without a socket: whether ten times the text costs ten times the
// time.
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/http/send.hpp"

#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/stream.hpp"
#include "figure.hpp"
#include "measure.hpp"

namespace bench {
namespace {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

std::string repeated(std::string_view piece, std::size_t bytes) {
  std::string text;
  while (text.size() < bytes) text += piece;
  return text;
}

std::string plain(std::size_t bytes) {
  return repeated("Some words of an answer, and a line end.\n", bytes);
}

// A span every 100 bytes and a tag every 1,000.
std::string spans(std::size_t bytes) {
  const std::string span = repeated("Some words of an answer ", 80) + "`a code span`\n";
  return repeated(repeated(span, 980) + "<think>", bytes) + "</think>the end";
}

std::string fences(std::size_t bytes) {
  return repeated("```\n~~~ ` </think> <think>\n", bytes);
}

// Times `run` with nothing in the caches, or a small text would seem cheaper by the byte than a
// large one, which does not fit. Each line of a cache is written to: a memset of so much would pass
// the caches by and leave in them what they hold.
template <class Prepare, class Run>
void run_cold(benchmark::State& state, Prepare prepare, Run run) {
  constexpr std::size_t LINE = 64;
  std::vector<char> others(std::size_t{256} << 20U);
  for (auto _ : state) {
    auto input = prepare();
    for (std::size_t i = 0; i < others.size(); i += LINE) ++others[i];
    benchmark::DoNotOptimize(others.data());
    const double start = cpu_s();
    benchmark::DoNotOptimize(run(std::move(input)));
    state.SetIterationTime(cpu_s() - start);
  }
}

void strip(benchmark::State& state, std::string (*make)(std::size_t)) {
  const std::string text = make(static_cast<std::size_t>(state.range(0)));
  run_cold(
      state, [&] { return std::string(text); },
      [](std::string content) { return llm::_strip_reasoning(std::move(content)); });
}

// `bytes` of events, all of them in one read.
std::string one_line(std::size_t bytes) {
  return R"(data: {"choices":[{"delta":{"content":")" + std::string(bytes, 'x') + "\"}}]}\n\n";
}

std::string many_events(std::size_t bytes) {
  return repeated("data: {\"choices\":[{\"delta\":{\"content\":\"word\"}}]}\n\n", bytes);
}

// Hands out a body that it only borrows, as many bytes at a time as a socket would.
class Borrowed final : public http::Transport {
 public:
  explicit Borrowed(std::string_view body, std::size_t piece) : _body(body), _piece(piece) {}

  std::unique_ptr<http::Exchange> open(http::Request, http::Watch&) override {
    return std::make_unique<Reading>(_body, _piece);
  }

 private:
  class Reading final : public http::Exchange {
   public:
    Reading(std::string_view body, std::size_t piece) : _rest(body), _piece(piece) {}

    [[nodiscard]] const http::Head& head() const noexcept override { return _head; }

    bool read(std::string& into, http::Watch&) override {
      const std::string_view piece = _rest.substr(0, _piece);
      into += piece;
      _rest.remove_prefix(piece.size());
      return !piece.empty();
    }

   private:
    const http::Head _head{.status = 200, .content_type = "text/event-stream"};
    std::string_view _rest;
    std::size_t _piece;
  };

  std::string_view _body;
  std::size_t _piece;
};

void stream(benchmark::State& state, std::string (*make)(std::size_t), std::size_t piece) {
  const std::string body = make(static_cast<std::size_t>(state.range(0))) + "data: [DONE]\n\n";
  Borrowed transport(body, piece);
  const http::RetryPolicy policy;
  const http::Headers headers;
  const http::Secrets secrets;
  const auto read = [](http::Response& reply) { return llm::_parse_sse_stream(reply, "m"); };
  const http::SendOptions options{
      .policy = policy, .headers = headers, .secrets = secrets, .transport = &transport};
  run_cold(
      state, [] { return 0; },
      [&](int) { return http::get("http://host.example", options, read); });
}

void in_pieces(benchmark::State& state, std::string (*make)(std::size_t)) {
  stream(state, make, 16'384);
}

void in_one_segment(benchmark::State& state, std::string (*make)(std::size_t)) {
  stream(state, make, std::string::npos);
}

// Keeps the time of each run instead of printing it.
class Times : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.aggregate_name == "median")
        us[run.run_name.function_name + run.run_name.args] = run.GetAdjustedRealTime();
    }
  }

  std::map<std::string, double> us;
};

struct Case {
  const char* name;
  void (*run)(benchmark::State&, std::string (*)(std::size_t));
  std::string (*make)(std::size_t);
  int bytes;
};

constexpr int MB = 1'000'000;
constexpr std::size_t EVENT_BYTES = 50;

const Case CASES[] = {{"strip_1m_plain", strip, plain, MB},
                      {"strip_1m_spans", strip, spans, MB},
                      {"strip_1m_fences", strip, fences, MB},
                      {"sse_line_16m", in_pieces, one_line, 16 * MB},
                      {"sse_line_200k_events", in_one_segment, many_events, 200'000 * EVENT_BYTES}};

}  // namespace

void measure_decoding(const Wanted& wanted, const Report& report) {
  // Memory once taken from the system is kept, or its clearing would be most of what is measured.
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
  // The large and the small in turn, so that a machine whose speed drifts spoils both alike.
  char name[] = "bench";
  char in_turn[] = "--benchmark_enable_random_interleaving=true";
  char* arguments[] = {name, in_turn, nullptr};
  int count = 2;
  benchmark::Initialize(&count, arguments);
  bool any = false;
  for (const Case& each : CASES) {
    if (!wanted(each.name)) continue;
    any = true;
    benchmark::RegisterBenchmark(each.name, each.run, each.make)
        ->Arg(each.bytes)
        ->Arg(each.bytes / 10)
        ->Repetitions(25)
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kMicrosecond);
  }
  if (!any) return;
  Times times;
  benchmark::RunSpecifiedBenchmarks(&times);
  for (const Case& each : CASES) {
    if (!wanted(each.name)) continue;
    const auto time = [&](int bytes) { return times.us.at(each.name + std::to_string(bytes)); };
    report({.name = each.name,
            .ours = time(each.bytes),
            .floor = time(each.bytes / 10),
            .unit = "us",
            .limit = 11});
  }
}

}  // namespace bench
