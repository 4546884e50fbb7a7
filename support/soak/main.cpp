// ./soak: many threads on a few clients, each call a script of the catalogue's faults, and every
// outcome held against its prediction.
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <malloc.h>
#include <unistd.h>

#include "tovren_mapstead/engines/llm.hpp"

#include "endpoint/completion.hpp"
#include "endpoint/endpoint.hpp"
#include "faults/faults.hpp"
#include "loopback/detour.hpp"

namespace {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;
using faults::End;
using faults::Fault;
using faults::Outcome;
using http::Clock;
using loopback::Exchange;

constexpr int CALLERS = 24;
constexpr int ATTEMPTS = 3;
constexpr std::size_t MOST_REQUESTS =
    std::size_t{2} * ATTEMPTS;  // each once more without streaming

// Sanitizers slow everything down and keep memory of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

// There is a client for each.
enum Path : std::uint8_t { PLAIN, WHOLE, TLS, COPILOT, PATHS };

// A fault that ends so, whether a stream is asked for or not. None floods: that takes a core.
const Fault* draw(std::mt19937_64& random, End end) {
  for (;;) {
    const Fault& fault = faults::catalogue().at(random() % faults::catalogue().size());
    const bool fits = fault.streamed.end == end && fault.whole.end == end;
    if (fits && fault.act != faults::Act::flood) return &fault;
  }
}

// One call, drawn from the seed of the run and the number of the call.
struct Script {
  Script(std::uint64_t seed, std::uint64_t number) {
    std::mt19937_64 random(seed << 32U ^ number);
    path = static_cast<Path>(random() % PATHS);
    for (auto parts = random() % 100; parts > 0; --parts) {
      answer += " moss\n\n “river” 😀 \"it\\\" data: [DONE]";
    }
    answer.insert(0, std::to_string(number));
    for (const Fault*& fault : faults)
      fault = random() % 2 == 0 ? nullptr : draw(random, End::soon);
    if (random() % 6 != 0) return;
    stop = std::chrono::milliseconds(1 + random() % 200);
    if (random() % 2 == 0) faults[random() % 3] = draw(random, End::timeout);
  }

  Path path;
  std::string answer;  // in place of those that are null
  std::vector<const Fault*> faults = std::vector<const Fault*>(MOST_REQUESTS);  // one a request
  std::optional<std::chrono::duration<double>> stop{};
};

// Whether a call could come to what was seen, if without its stop it would come to what is due.
bool is_right(const Script& script, const Outcome& seen, const Outcome& due) {
  if (seen.end == "LLMStopped") return script.stop && seen.seconds >= script.stop->count();
  if (seen.end != due.end || seen.requests != due.requests) return false;
  if (seen.end == "answer") return seen.text == (due.text.empty() ? script.answer : due.text);
  // The text for a kept connection that ends before the head.
  const bool kept = seen.text.find("broke before a reply") != std::string::npos;
  if (kept && (due.text == "reset" || due.text == "empty reply")) return true;
  return seen.text.find(due.text) != std::string::npos;
}

class Soak {
 public:
  explicit Soak(std::uint64_t seed) : _seed(seed) {
    // Copilot's token is soon to be renewed, so that there are exchanges all the time.
    _plain.exchanges(200, R"({"token":")" + faults::KEY + R"(","expires_at":9e9,"refresh_in":1})");
    const auto transport = faults::trusting(_tls.server());
    const auto detour = loopback::detour(_plain.url());
    const http::Wait wait = [](double period_s, const auto& should_stop, auto deadline) {
      http::wait_unless_stopped(period_s / 500, should_stop, deadline);
    };
    for (int path = PLAIN; path < PATHS; ++path) {
      const llm::LLMConfig config({.provider = path == COPILOT ? "copilot" : "openai",
                                   .base_url = (path == TLS ? _tls : _plain).url(),
                                   .model = "m",
                                   .api_key = faults::KEY,
                                   .max_retries = ATTEMPTS - 1,
                                   .stream = path != WHOLE});
      _clients.emplace_back(config, llm::ClientOptions{path == COPILOT ? detour : transport, wait});
    }
  }

  // Makes calls on some threads until the time is over.
  void run(std::chrono::duration<double> period) {
    const auto end = Clock::now() + period;
    std::vector<std::jthread> callers;
    callers.reserve(CALLERS);
    for (int i = 0; i < CALLERS; ++i) {
      callers.emplace_back([this, end] {
        while (Clock::now() < end) call(_next++);
      });
    }
  }

  std::map<std::string, long> counts;  // of the ends of calls, and of what should not be

 private:
  void call(std::uint64_t number) {
    const Script script(_seed, number);
    const auto start = Clock::now();
    llm::ChatOptions options;
    if (script.stop) options.should_stop = [&] { return Clock::now() >= start + *script.stop; };
    const std::string prompt =
        std::to_string(number) + std::string(number % 20 == 0 ? 50'000 : 300, 'p');
    Outcome seen = faults::outcome_of(
        [&] { return _clients.at(script.path).chat({llm::user(prompt)}, options).content(); });
    const Outcome due = faults::predict(
        script.faults, script.path == WHOLE ? faults::Asked::whole : faults::Asked::streamed,
        ATTEMPTS);
    seen.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const std::lock_guard lock(_mutex);
    seen.requests = std::exchange(_requests[number], 0);
    _requests.erase(number);
    ++counts[seen.end];
    const char* const fault = faults::shows_secret(seen.text + seen.causes) ? SHOWN
                              : !is_right(script, seen, due)                ? WRONG
                                                                            : nullptr;
    if (fault == nullptr || ++counts[fault] > 20) return;
    std::fprintf(stderr, "%s, %lu: %s, %.3f s, %d requests; due: %s, %d, %s\n", fault, number,
                 seen.text.c_str(), seen.seconds, seen.requests, due.end.c_str(), due.requests,
                 due.text.c_str());
  }

  // Serves a call what its script says.
  void serve(Exchange& exchange) {
    const auto asked = endpoint::Json::parse(exchange.request().body);
    const std::uint64_t number =
        std::stoull(asked.at("messages").at(0).at("content").get<std::string>());
    const Script script(_seed, number);
    std::size_t request = 0;
    {
      const std::lock_guard lock(_mutex);
      request = static_cast<std::size_t>(_requests[number]++);
    }
    if (number % 4 == 0) exchange.pause(std::chrono::milliseconds(number % 20));
    const Fault* const fault = script.faults[request % MOST_REQUESTS];
    if (fault != nullptr) return play(exchange, *fault);
    endpoint::reply(exchange, asked, {.text = script.answer});
  }

  static constexpr const char* WRONG = "WRONG outcomes";
  static constexpr const char* SHOWN = "WRONG: errors that show a secret";

  const std::uint64_t _seed;
  std::atomic<std::uint64_t> _next = 1;
  std::mutex _mutex;
  std::map<std::uint64_t, int> _requests;  // of the calls that run
  const endpoint::Handler _serve = [this](auto& exchange) { serve(exchange); };
  endpoint::Endpoint _plain{_serve};
  endpoint::Endpoint _tls{_serve, {.tls = true}};
  std::vector<llm::LLMClient> _clients;
};

// What the process has at a time.
struct Use {
  Use() {
    malloc_trim(0);
    const auto in_use = mallinfo2();
    heap_kib = static_cast<long>((in_use.uordblks + in_use.hblkhd) / 1024);
  }

  long descriptors = faults::entries("/proc/self/fd"), threads = faults::entries("/proc/self/task");
  long heap_kib = 0;
};

int run(std::chrono::seconds period, std::uint64_t seed) {
  faults::mute_log();
  std::jthread([] {}).join();  // with the first one, ThreadSanitizer starts one of its own
  const Use before;
  auto soak = std::make_unique<Soak>(seed);
  soak->run(period / 2.0);
  const Use half;
  soak->run(period / 2.0);
  const Use all;
  auto counts = std::move(soak->counts);
  soak.reset();
  // The resolver's threads may take a moment to end.
  for (int i = 0; i < 100 && Use().threads > before.threads; ++i) usleep(20'000);
  const Use after;
  const auto limit = [&](const std::string& what, long count, long most) {
    counts[(count > most ? "WRONG: " : "") + what] = count;
  };
  limit("descriptors left", after.descriptors - before.descriptors, 0);
  limit("threads left", after.threads - before.threads, 0);
  limit("KiB of the heap grown since mid-run", all.heap_kib - half.heap_kib,
        SANITIZED ? LONG_MAX : 2048);
  std::printf("soak of %ld s, seed %lu\n", static_cast<long>(period.count()), seed);
  bool well = counts["answer"] > 0 && counts["LLMError"] > 0;
  for (const auto& [what, count] : counts) {
    well = well && !what.starts_with("WRONG");
    std::printf("%-44s%10ld\n", what.c_str(), count);
  }
  return well ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const long seconds = argc > 1 ? std::atol(argv[1]) : 0;
  if (seconds <= 0 || argc > 3) {
    std::fputs("usage: ./soak SECONDS [SEED]\n", stderr);
    return 2;
  }
  setenv("no_proxy", "*", 1);                              // NOLINT(concurrency-mt-unsafe)
  setenv("COPILOT_GITHUB_TOKEN", faults::KEY.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  alarm(static_cast<unsigned>(seconds) + 300);             // a call that never returns ends the run
  return run(std::chrono::seconds(seconds), argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1);
}
