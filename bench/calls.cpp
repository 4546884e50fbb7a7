// What a call costs its thread, beside the least that it could cost. The server's threads do not
// count. Compare within one run: `ratio` is the client's time over that of the floor just measured.
#include <chrono>
#include <ctime>
#include <map>
#include <stdexcept>
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

std::map<const Work*, double> floors;  // CPU seconds of a call

double thread_cpu_s() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Call>
double measure(benchmark::State& state, Call call) {
  call();  // opens the connection
  const double start = thread_cpu_s();
  for (auto _ : state) benchmark::DoNotOptimize(call());
  return (thread_cpu_s() - start) / static_cast<double>(state.iterations());
}

void floor_call(benchmark::State& state, const Work* work) {
  bench::Floor floor(server().url() + work->path + "/chat/completions");
  const nlohmann::ordered_json body{
      {"model", "m"}, {"messages", {{{"role", "user"}, {"content", prompt_of(*work)}}}}};
  const std::string text = body.dump();
  floors[work] = measure(state, [&] { return floor.call(text, work->stream); });
}

void client_call(benchmark::State& state, const Work* work) {
  const llm::LLMClient client({.base_url = server().url() + work->path,
                               .model = "m",
                               .api_key = "k",
                               .stream = work->stream});
  const llm::Messages messages{{{"role", "user"}, {"content", prompt_of(*work)}}};
  const llm::ChatOptions options{
      .should_stop = [] { return false; },
      .deadline = std::chrono::steady_clock::now() + std::chrono::hours(1)};
  const double cpu_s = measure(state, [&] { return client.chat(messages, options); });
  state.counters["ratio"] = cpu_s / floors[work];
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

BENCHMARK_CAPTURE(floor_call, streamed_1000_events, &STREAMED);
BENCHMARK_CAPTURE(client_call, streamed_1000_events, &STREAMED);
BENCHMARK_CAPTURE(floor_call, small_whole, &SMALL);
BENCHMARK_CAPTURE(client_call, small_whole, &SMALL);
BENCHMARK_CAPTURE(floor_call, prompt_100_kb, &LARGE);
BENCHMARK_CAPTURE(client_call, prompt_100_kb, &LARGE);
BENCHMARK_CAPTURE(write_prompt, 100_kb, 100'000);
BENCHMARK_MAIN();
