// ./soak: many threads on a few clients, each call a script of the catalogue's faults, and every
// outcome held against its prediction.
#include <atomic>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
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
using faults::Asked;
using faults::End;
using faults::Fault;
using faults::Outcome;
using http::Clock;
using loopback::Exchange;
using std::chrono::milliseconds;

constexpr int CALLERS = 24;
constexpr int ATTEMPTS = 3;
constexpr std::size_t MOST_REQUESTS =
    std::size_t{3} * ATTEMPTS;  // each without JSON mode, without streaming

// Sanitizers slow everything down and keep memory of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

// How late a call may return on a busy machine, and how long one without a bound may take.
constexpr milliseconds SLACK{SANITIZED ? 3000 : 500};
constexpr milliseconds LONGEST_CALL{SANITIZED ? 90'000 : 20'000};

double seconds(milliseconds period) {
  return std::chrono::duration<double>(period).count();
}

// There is a client for each. The last one's time limit is soon over.
enum Path : std::uint8_t { PLAIN, WHOLE, TLS, COPILOT, IMPATIENT };

// One call, drawn from the seed of the run and the number of the call.
struct Script {
  Path path = IMPATIENT;
  bool json = false;
  std::optional<milliseconds> deadline{}, stop{};
  std::string prompt{};                // begins with the number
  std::string answer = "So";           // in place of those that are null
  std::vector<const Fault*> faults{};  // one a request
};

// A fault that ends soon, or one that ends by the timeout. None floods: that takes a core.
const Fault* draw_fault(std::mt19937_64& random, End end) {
  const std::vector<Fault>& all = faults::catalogue();
  for (;;) {
    const Fault& fault = all[random() % all.size()];
    const bool fits = fault.streamed.end == end && fault.whole.end == end;
    if (fits && fault.act != faults::Act::flood) return &fault;
  }
}

Script draw(std::uint64_t seed, std::uint64_t number) {
  std::mt19937_64 random(seed << 32U ^ number);
  const auto one_in = [&](unsigned chances) { return random() % chances == 0; };
  Script script;
  if (!one_in(50)) script.path = static_cast<Path>(random() % IMPATIENT);
  script.json = one_in(3);
  script.prompt = std::to_string(number) + std::string(one_in(20) ? 50'000 : 300, 'p');
  for (auto parts = one_in(20) ? 200 : random() % 9; parts > 0; --parts) {
    script.answer += " moss\n\n “river” 😀 \"it\\\" data: [DONE]";
  }
  const bool patient = script.path != IMPATIENT;
  while (script.faults.size() < MOST_REQUESTS) {
    const bool answers = patient && random() % 100 < 55;
    const End end = patient ? End::soon : End::timeout;
    script.faults.push_back(answers ? nullptr : draw_fault(random, end));
  }
  if (patient && one_in(6)) {
    (one_in(2) ? script.deadline : script.stop) = milliseconds(1 + random() % 200);
    if (one_in(2)) script.faults[random() % 3] = draw_fault(random, End::timeout);
  }
  return script;
}

class Soak {
 public:
  explicit Soak(std::uint64_t seed) : _seed(seed) {
    // Copilot's token is soon to be renewed, so that there are exchanges all the time.
    _plain.exchanges(200, R"({"token":")" + faults::KEY + R"(","expires_at":9e9,"refresh_in":1})");
    const auto transport = faults::trusting(_tls.server());
    const auto detour = loopback::detour(_plain.url());
    // Short, but refused where the whole wait would be.
    const http::Wait wait = [](double period_s, const auto& should_stop, auto deadline) {
      http::wait_unless_stopped(deadline ? period_s : period_s / 500, should_stop, deadline);
    };
    for (const Path path : {PLAIN, WHOLE, TLS, COPILOT, IMPATIENT}) {
      const llm::LLMConfig config({.provider = path == COPILOT ? "copilot" : "openai",
                                   .base_url = (path == TLS ? _tls : _plain).url(),
                                   .model = "m",
                                   .api_key = faults::KEY,
                                   .timeout_s = path == IMPATIENT ? 0.25 : 120,
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
    const Script script = draw(_seed, number);
    const auto start = Clock::now();
    llm::ChatOptions options{.response_json = script.json};
    if (script.stop) options.should_stop = [&] { return Clock::now() >= start + *script.stop; };
    if (script.deadline) options.deadline = start + *script.deadline;
    Outcome seen = faults::outcome_of([&] {
      return _clients.at(script.path).chat({llm::user(script.prompt)}, options).content();
    });
    const Outcome due = faults::predict(
        script.faults, {.asked = script.path == WHOLE ? Asked::whole : Asked::streamed,
                        .json = script.json,
                        .attempts = ATTEMPTS,
                        .patient = script.path != IMPATIENT,
                        .deadline = script.deadline.has_value()});
    const milliseconds bound = script.deadline.value_or(script.stop.value_or(LONGEST_CALL));
    const std::lock_guard lock(_mutex);
    seen.requests = std::exchange(_requests[number], 0);
    _requests.erase(number);
    const char* fault = nullptr;
    if (seconds(bound + SLACK) < seen.seconds) fault = "late";
    if (faults::shows_secret(seen.text + seen.causes)) fault = "shown";
    if (!right(script, seen, due)) fault = "wrong";
    ++counts["calls"];
    ++counts[seen.end];
    if (fault == nullptr || ++counts[fault] > 20) return;
    std::fprintf(stderr, "call %lu is %s: %s, %.3f s, %d requests, %.300s; due: %s, %d, %.300s\n",
                 number, fault, seen.end.c_str(), seen.seconds, seen.requests, seen.text.c_str(),
                 due.end.c_str(), due.requests, due.text.c_str());
  }

  // Whether a call could come to this.
  static bool right(const Script& script, const Outcome& seen, const Outcome& due) {
    const auto reached = [&](const std::optional<milliseconds>& bound) {
      return bound && seen.seconds >= seconds(*bound);
    };
    if (seen.end == "LLMStopped") return reached(script.stop);
    if (seen.end == "LLMTimeout" && reached(script.deadline)) return true;
    if (seen.end != due.end) return false;
    if (seen.requests != due.requests && script.path != IMPATIENT) return false;
    // The text for a kept connection that ends before the head.
    const bool kept = seen.text.find("broke before a reply") != std::string::npos;
    if (kept && (due.text == "reset" || due.text == "empty reply")) return true;
    if (seen.end != "answer") return seen.text.find(due.text) != std::string::npos;
    return seen.text == (due.text.empty() ? script.answer : due.text);
  }

  // Serves a call what its script says. Nobody should ask without the key, with another prompt, or
  // once too often.
  void serve(Exchange& exchange) {
    auto asked = endpoint::Json::parse(exchange.request().body);
    const std::string prompt = asked.at("messages").at(0).at("content");
    std::uint64_t number = 0;
    std::from_chars(prompt.data(), prompt.data() + prompt.size(), number);
    const Script script = draw(_seed, number);
    std::size_t request = 0;
    {
      const std::lock_guard lock(_mutex);
      request = static_cast<std::size_t>(_requests[number]++);
      const bool has_key = faults::shows_secret(exchange.request().headers.at("authorization"));
      if (!has_key || prompt != script.prompt || request >= MOST_REQUESTS) ++counts["wrong"];
    }
    std::mt19937_64 random(number * MOST_REQUESTS + request);
    const auto one_in = [&](unsigned chances) { return random() % chances == 0; };
    if (one_in(4)) exchange.pause(milliseconds(random() % 20));
    const std::size_t piece_bytes = 1 + random() % (one_in(2) ? 60'000 : 400);
    if (const Fault* const fault = script.faults[request % MOST_REQUESTS]) {
      return play(exchange, *fault, piece_bytes);
    }
    if (one_in(8)) asked["stream"] = false;  // who asks for a stream may get a whole reply
    const std::string reasoning = one_in(4) ? "<think>Hm.</think>\n\n" : "";
    endpoint::reply(exchange, asked, {.text = reasoning + script.answer}, {}, piece_bytes);
  }

  const std::uint64_t _seed;
  std::atomic<std::uint64_t> _next = 1;
  std::mutex _mutex;
  std::map<std::uint64_t, int> _requests;  // of the calls that run
  const endpoint::Handler _serve = [this](auto& exchange) { serve(exchange); };
  endpoint::Endpoint _plain{_serve};
  endpoint::Endpoint _tls{_serve, {.tls = true}};
  std::vector<llm::LLMClient> _clients;
};

// What the process has at a time; the memory in KiB.
struct Use {
  long descriptors = faults::entries("/proc/self/fd"), threads = faults::entries("/proc/self/task");
  long heap = 0, resident = 0;

  Use() {
    malloc_trim(0);
    const auto in_use = mallinfo2();
    heap = static_cast<long>((in_use.uordblks + in_use.hblkhd) / 1024);
    std::ifstream("/proc/self/statm") >> resident >> resident;
    resident *= getpagesize() / 1024;
  }
};

int run(std::chrono::seconds period, std::uint64_t seed) {
  const std::atomic<int>& logged = faults::watch_log();
  std::jthread([] {}).join();  // with the first one, ThreadSanitizer starts one of its own
  const Use before;
  auto soak = std::make_unique<Soak>(seed);
  soak->run(period / 2.0);
  const Use half;
  const int inheritable = faults::inheritable_connections();
  soak->run(period / 2.0);
  const Use all;
  auto counts = std::move(soak->counts);
  soak.reset();
  // The resolver's threads may take a moment to end.
  for (int i = 0; i < 100 && Use().threads > before.threads; ++i) usleep(20'000);
  const Use after;
  bool well = counts["answer"] > 0 && counts["LLMError"] > 0;
  const auto row = [&](const char* what, long count, long most) {
    well = well && count <= most;
    std::printf("%-44s%10ld%s\n", what, count, count > most ? "   WRONG" : "");
  };
  std::printf("soak of %ld s, seed %lu\n", static_cast<long>(period.count()), seed);
  for (const char* const end : {"calls", "answer", "LLMError", "LLMTimeout", "LLMStopped"}) {
    row(end, counts[end], LONG_MAX);
  }
  row("wrong outcomes", counts["wrong"], 0);
  row("calls that outlived their bound", counts["late"], 0);
  row("secrets in errors and log lines", counts["shown"] + logged, 0);
  row("connections that a child would inherit", inheritable, 0);
  row("descriptors left", after.descriptors - before.descriptors, 0);
  row("threads left", after.threads - before.threads, 0);
  if (!SANITIZED) {
    row("heap growth since mid-run, KiB (2048 at most)", all.heap - half.heap, 2048);
    row("RSS growth since mid-run, KiB (8192 at most)", all.resident - half.resident, 8192);
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
