// What a call costs its thread in CPU time, beside the least that it could cost. The server's
// threads do not count.
#include <chrono>
#include <ctime>
#include <string>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/llm.hpp"

#include "engines/http/json_text.hpp"
#include "floor.hpp"
#include "loopback/server.hpp"

namespace {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

constexpr int EVENTS = 1000;

std::string event(const std::string& content) {
  return R"(data: {"id":"chatcmpl-9f8e7d6c5b4a39281706f5e4d3c2b1a0","object":"chat.completion.chunk",)"
         R"("created":1763800000,"model":"some-model-2026-01-01","system_fingerprint":"fp_0123456789",)"
         R"("choices":[{"index":0,"delta":{"content":")" +
         content +
         R"("},"logprobs":null,"finish_reason":null}],"usage":null})"
         "\n\n";
}

std::string streamed_body() {
  std::string body;
  for (int i = 0; i < EVENTS; ++i) body += event(" word" + std::to_string(i % 10));
  return body + "data: [DONE]\n\n";
}

const std::string WHOLE =
    R"({"id":"chatcmpl-9f8e7d6c5b4a","object":"chat.completion","created":1763800000,)"
    R"("model":"some-model-2026-01-01","choices":[{"index":0,"message":{"role":"assistant",)"
    R"("content":"Hello! How can I help you today?"},"logprobs":null,"finish_reason":"stop"}],)"
    R"("usage":{"prompt_tokens":9,"completion_tokens":9,"total_tokens":18}})";

loopback::Server& server() {
  static const std::string streamed = streamed_body();
  static loopback::Server instance([](loopback::Exchange& exchange) {
    if (exchange.request().target.starts_with("/stream")) {
      exchange.start_stream();
      exchange.chunk(streamed);
      exchange.end_stream();
    } else {
      exchange.reply(200, WHOLE);
    }
  });
  return instance;
}

struct Work {
  const char* path;
  bool stream;
  std::size_t prompt_bytes;
};

// Like source code: short lines, some quotes.
std::string prompt_of(const Work& work) {
  std::string text;
  while (text.size() < work.prompt_bytes) text += "  if (name == \"value\") return lookup(name);\n";
  text.resize(work.prompt_bytes);
  return text;
}

double thread_cpu_s() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// In turn, so that a machine whose speed drifts spoils both alike.
void call(benchmark::State& state, const Work* work) {
  const std::string url = server().url() + work->path;
  bench::Floor floor(url + "/chat/completions");
  nlohmann::ordered_json body;
  body["messages"][0]["content"] = prompt_of(*work);
  const std::string text = body.dump();
  const llm::LLMClient client(
      {.base_url = url, .model = "m", .api_key = "k", .stream = work->stream});
  const llm::Messages messages{{{"role", "user"}, {"content", prompt_of(*work)}}};
  const llm::ChatOptions options{
      .should_stop = [] { return false; },
      .deadline = std::chrono::steady_clock::now() + std::chrono::hours(1)};
  double floor_s = 0;
  double client_s = 0;
  for (auto _ : state) {
    const double start = thread_cpu_s();
    benchmark::DoNotOptimize(floor.call(text, work->stream));
    const double middle = thread_cpu_s();
    benchmark::DoNotOptimize(client.chat(messages, options));
    const double end = thread_cpu_s();
    floor_s += middle - start;
    client_s += end - middle;
    state.SetIterationTime(end - middle);
  }
  const auto calls = static_cast<double>(state.iterations());
  state.counters["floor_us"] = 1e6 * floor_s / calls;
  state.counters["client_us"] = 1e6 * client_s / calls;
  state.counters["ratio"] = client_s / floor_s;
}

void write_prompt(benchmark::State& state, std::size_t bytes) {
  const nlohmann::ordered_json body{
      {"messages",
       {{{"content", prompt_of({.path = "", .stream = false, .prompt_bytes = bytes})}}}}};
  for (auto _ : state) benchmark::DoNotOptimize(http::write_json(body));
}

const Work STREAMED{"/stream", true, 100};
const Work SMALL{"/whole", false, 100};
const Work LARGE{"/whole", false, 100'000};

}  // namespace

BENCHMARK_CAPTURE(call, streamed_1000_events, &STREAMED)->UseManualTime();
BENCHMARK_CAPTURE(call, small_whole, &SMALL)->UseManualTime();
BENCHMARK_CAPTURE(call, prompt_100_kb, &LARGE)->UseManualTime();
BENCHMARK_CAPTURE(write_prompt, 100_kb, 100'000);
BENCHMARK_MAIN();
