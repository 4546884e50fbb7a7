// ./soak: many threads on a few clients against an endpoint that misbehaves, every outcome checked.
#include <array>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <malloc.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "playback/playback.hpp"
#include "soak/endpoint.hpp"

namespace soak {
namespace {

namespace fs = std::filesystem;
namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;
using Clock = http::Clock;
using std::chrono::milliseconds;

constexpr int CALLERS = 24;

// Sanitizers slow everything down and keep memory of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

// How late a call may return on a busy machine; an endpoint that stalls does so until it is left.
constexpr milliseconds SLACK{SANITIZED ? 3000 : 500};

// Steady streams take long where a hundred threads want the processor; a call that hangs takes
// longer.
constexpr milliseconds LONGEST_CALL{SANITIZED ? 90'000 : 20'000};

constexpr long HEAP_TOLERANCE_KIB = 2048;
constexpr long RSS_TOLERANCE_KIB = 8192;

struct Tally {
  std::atomic<long> calls = 0, answers = 0, errors = 0, timeouts = 0, stops = 0;
  std::atomic<long> wrong = 0, late = 0, secrets = 0, inheritable = 0;
};

// Counts the log lines with a secret in them, and prints none.
class Listener final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit Listener(Tally& tally) : _tally(tally) {}

 private:
  void sink_it_(const spdlog::details::log_msg& line) override {
    _tally.secrets += holds_secret({line.payload.data(), line.payload.size()}) ? 1 : 0;
  }

  void flush_() override {}

  Tally& _tally;
};

long entries(const char* folder) {
  return std::distance(fs::directory_iterator(folder), {});
}

std::uint64_t number(std::string_view text, std::uint64_t otherwise) {
  std::uint64_t value = otherwise;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

// Connections that a program which this one starts would inherit.
long inheritable_connections() {
  long count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    const auto descriptor = static_cast<int>(number(entry.path().filename().string(), 0));
    int family = 0;
    socklen_t size = sizeof family;
    const bool connection =
        getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &family, &size) == 0 && family == AF_INET;
    if (connection && (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0) ++count;
  }
  return count;
}

// Of the process, in KiB.
struct Memory {
  long heap = 0;
  long rss = 0;

  static Memory now() {
    malloc_trim(0);
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    const auto in_use = mallinfo2();
    return {.heap = static_cast<long>((in_use.uordblks + in_use.hblkhd) / 1024),
            .rss = pages * getpagesize() / 1024};
  }
};

class Clients {
 public:
  explicit Clients(const Endpoint& endpoint)
      : _ca_file(fs::temp_directory_path() /
                 ("tovren-soak-" + std::to_string(endpoint.tls().port()) + ".pem")) {
    std::ofstream(_ca_file) << endpoint.tls().certificate();
    const auto transport = http::make_transport({.ca_file = _ca_file.string()});
    const auto detour = std::make_shared<playback::Detour>(endpoint.plain().url());
    for (int i = 0; i < ROADS; ++i) {
      const auto road = static_cast<Road>(i);
      const bool copilot = road == Road::copilot;
      const llm::LLMConfig config({.provider = copilot ? "copilot" : "openai",
                                   .base_url = copilot
                                                   ? tovren_mapstead::engines::copilot::COPILOT_BASE
                                               : road == Road::tls ? endpoint.tls().url()
                                                                   : endpoint.plain().url(),
                                   .model = "m",
                                   .api_key = endpoint.key(),
                                   .timeout_s = road == Road::impatient ? IMPATIENT_S : 120,
                                   .max_retries = TRIES - 1,
                                   .stream = road != Road::whole});
      _clients.emplace_back(
          config, llm::ClientOptions{.transport = copilot ? detour : transport, .wait = wait});
    }
  }

  Clients(const Clients&) = delete;
  Clients& operator=(const Clients&) = delete;

  ~Clients() { fs::remove(_ca_file); }

  const llm::LLMClient& on(Road road) const { return _clients.at(static_cast<std::size_t>(road)); }

 private:
  // Makes short work of the seconds between tries.
  static void wait(double period_s, const http::StopTest& should_stop,
                   std::optional<http::Deadline> deadline) {
    // Shorter, and yet refused where the whole would be: that is what the oracle counts on.
    if (deadline && http::Clock::now() + std::chrono::duration<double>(period_s) >= *deadline) {
      throw http::DeadlineExceeded("the wait would last past the deadline");
    }
    http::wait_unless_stopped(period_s / 500, should_stop, deadline);
  }

  fs::path _ca_file;
  std::vector<llm::LLMClient> _clients;
};

struct Told {
  Outcome::Kind kind = Outcome::Kind::never;
  std::string text{};
  bool complete = false;  // an answer in all its parts
};

Told ask(const llm::LLMClient& client, const Call& call, Clock::time_point start) {
  http::StopTest should_stop;
  std::optional<http::Deadline> deadline;
  if (call.stop) should_stop = [end = start + *call.stop] { return Clock::now() >= end; };
  if (call.deadline) deadline = start + *call.deadline;
  try {
    const llm::LLMResult result =
        client.chat({llm::user(call.prompt)},
                    {.response_json = call.json, .should_stop = should_stop, .deadline = deadline});
    const llm::LLMResult whole({.content = result.content(),
                                .model = call.model,
                                .prompt_tokens = static_cast<std::int64_t>(call.prompt.size()),
                                .completion_tokens = static_cast<std::int64_t>(call.pieces.size()),
                                .finish_reason = "stop"});
    return {Outcome::Kind::answer, result.content(), result == whole};
  } catch (const llm::LLMStopped& error) {
    return {Outcome::Kind::stopped, error.what()};
  } catch (const llm::LLMTimeout& error) {
    return {Outcome::Kind::timeout, error.what()};
  } catch (const llm::LLMError& error) {
    return {Outcome::Kind::error, error.what()};
  } catch (const std::exception& error) {
    return {Outcome::Kind::never, error.what()};
  }
}

// Whether a call could come to this, that late, with so many requests.
bool right(const Call& call, const Told& told, milliseconds took, int requests) {
  using Kind = Outcome::Kind;
  const Outcome due = outcome_of(call);
  if (told.kind == Kind::stopped) return call.stop && took >= *call.stop;
  if (told.kind == Kind::timeout && call.deadline && took >= *call.deadline) return true;
  if (told.kind != due.kind || (requests != due.requests && call.road != Road::impatient))
    return false;
  if (told.kind == Kind::answer) return told.complete && told.text == due.text;
  return told.text.find(due.text) != std::string::npos;
}

void make_call(const Clients& clients, Endpoint& endpoint, const Call& call, Tally& tally) {
  endpoint.open(call);
  const auto start = Clock::now();
  const Told told = ask(clients.on(call.road), call, start);
  const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  const int requests = endpoint.close(call);
  using Kind = Outcome::Kind;
  const bool answered = told.kind == Kind::answer;
  ++(answered                     ? tally.answers
     : told.kind == Kind::timeout ? tally.timeouts
     : told.kind == Kind::stopped ? tally.stops
                                  : tally.errors);
  const milliseconds bound = call.deadline ? *call.deadline : call.stop ? *call.stop : LONGEST_CALL;
  if (took > bound + SLACK) {
    ++tally.late;
    std::fprintf(stderr, "call %lu returned after %ld ms\n", call.id,
                 static_cast<long>(took.count()));
  }
  if (!answered && holds_secret(told.text)) {
    ++tally.secrets;
    std::fprintf(stderr, "call %lu shows a secret: %s\n", call.id, told.text.c_str());
  }
  if (!right(call, told, took, requests) && ++tally.wrong <= 20) {
    const Outcome due = outcome_of(call);
    std::fprintf(
        stderr, "call %lu, road %d: outcome %d instead of %d, %d requests instead of %d: %s\n",
        call.id, static_cast<int>(call.road), static_cast<int>(told.kind),
        static_cast<int>(due.kind), requests, due.requests, told.text.substr(0, 300).c_str());
  }
  ++tally.calls;
}

// Makes calls until the time is over, and tells how much more memory the second half has left in
// use than the first.
Memory run(std::chrono::seconds period, std::uint64_t seed, Tally& tally) {
  Endpoint endpoint(seed);
  setenv("COPILOT_GITHUB_TOKEN", endpoint.key().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  const Clients clients(endpoint);
  std::atomic<std::uint64_t> next = 1;
  const auto half = [&] {
    const auto end = Clock::now() + period / 2.0;
    std::vector<std::jthread> callers;
    callers.reserve(CALLERS);
    for (int i = 0; i < CALLERS; ++i) {
      callers.emplace_back([&] {
        while (Clock::now() < end) make_call(clients, endpoint, draw(seed, next++), tally);
      });
    }
    callers.clear();
    return Memory::now();
  };
  const Memory first = half();
  tally.inheritable = inheritable_connections();
  const Memory second = half();
  tally.wrong += endpoint.strange();
  return {.heap = second.heap - first.heap, .rss = second.rss - first.rss};
}

// What is left of these after `before` were there; resolver threads may take a moment to end.
long left(const char* folder, long before) {
  long more = 0;
  for (int i = 0; i < 100 && (more = entries(folder) - before) != 0; ++i)
    std::this_thread::sleep_for(milliseconds(20));
  return more;
}

int soak(std::chrono::seconds period, std::uint64_t seed) {
  constexpr const char* DESCRIPTORS = "/proc/self/fd";
  constexpr const char* THREADS = "/proc/self/task";
  Tally tally;
  spdlog::register_logger(std::make_shared<spdlog::logger>("tovren_mapstead.engines.llm",
                                                           std::make_shared<Listener>(tally)));
  std::jthread([] {}).join();  // with the first one, ThreadSanitizer starts one of its own
  const long descriptors = entries(DESCRIPTORS);
  const long threads = entries(THREADS);
  const Memory grown = run(period, seed, tally);
  bool well = tally.answers > 0 && tally.errors > 0;
  const auto row = [&](const char* what, long count, bool checked = false, long most = 0) {
    const bool bad = checked && count > most;
    well = well && !bad;
    std::printf("%-44s%10ld%s\n", what, count, bad ? "   WRONG" : "");
  };
  std::printf("%-44s%10ld s, seed %lu\n", "soak", static_cast<long>(period.count()), seed);
  row("calls", tally.calls);
  row("answers", tally.answers);
  row("LLMError", tally.errors);
  row("LLMTimeout", tally.timeouts);
  row("LLMStopped", tally.stops);
  row("wrong outcomes", tally.wrong, true);
  row("calls that outlived their bound", tally.late, true);
  row("secrets in errors and log lines", tally.secrets, true);
  row("connections that a child would inherit", tally.inheritable, true);
  row("descriptors left", left(DESCRIPTORS, descriptors), true);
  row("threads left", left(THREADS, threads), true);
  if (!SANITIZED) {
    row("heap growth since mid-run, KiB (2048 at most)", grown.heap, true, HEAP_TOLERANCE_KIB);
    row("RSS growth since mid-run, KiB (8192 at most)", grown.rss, true, RSS_TOLERANCE_KIB);
  }
  return well ? 0 : 1;
}

}  // namespace
}  // namespace soak

int main(int argc, char** argv) {
  const std::vector<std::string_view> arguments(argv + 1, argv + argc);
  const std::uint64_t seconds = arguments.empty() ? 0 : soak::number(arguments[0], 0);
  if (seconds == 0 || arguments.size() > 2) {
    std::fputs("usage: ./soak SECONDS [SEED]\n", stderr);
    return 2;
  }
  setenv("no_proxy", "*", 1);                   // NOLINT(concurrency-mt-unsafe): no threads yet
  alarm(static_cast<unsigned>(seconds) + 300);  // a call that never returns ends the run
  return soak::soak(std::chrono::seconds(seconds),
                    arguments.size() > 1 ? soak::number(arguments[1], 1) : 1);
}
