// Makes calls through a real server that ends idle connections after a second, with pauses about as
// long, and compares what was made with what the server saw. See tools/peers.
//
//   peers NAME URL CA_FILE RETRIES SECONDS SEED LOG
//
// Each call has a path of its own, so that LOG, with lines "CLIENT_PORT PATH", tells whether a
// request came twice. Prints a row of a table, then the texts of the errors.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "tovren_mapstead/engines/llm.hpp"

namespace {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

constexpr int CALLERS = 16;

// So many make the same pauses, to have several connections idle at a time.
constexpr int GANG = 8;

// One request in so many may meet a server that closes in the very moment of sending. No client can
// see that, and only a retry helps.
constexpr int REQUESTS_PER_RACE = 50;

// What was made, and what the server saw of it.
struct Counts {
  std::map<std::string, int> attempts, requests;  // by path
  std::map<std::string, int> errors;              // by text
  std::set<std::string> ports;
  int failed = 0;
};

// Half of the pauses are about a second, when the server closes.
std::chrono::duration<double> pause(std::mt19937_64& dice) {
  const bool near = std::bernoulli_distribution(0.5)(dice);
  return std::chrono::duration<double>(
      std::uniform_real_distribution(near ? 0.97 : 0.0, near ? 1.03 : 3.0)(dice));
}

class Run {
 public:
  Run(std::string name, std::string url, const std::string& ca_file, int retries)
      : _name(std::move(name)),
        _url(std::move(url)),
        _retries(retries),
        _transport(http::make_transport({.ca_file = ca_file})) {}

  Counts make(std::chrono::seconds period, std::uint64_t seed) {
    const auto end = http::Clock::now() + period;
    std::vector<std::jthread> callers;
    callers.reserve(CALLERS);
    for (unsigned i = 0; i < CALLERS; ++i) {
      callers.emplace_back([this, end, i, seed] {
        std::mt19937_64 dice(seed * CALLERS + i / GANG);
        for (int n = 0; http::Clock::now() < end; ++n) {
          call(_name + "." + std::to_string(i) + "." + std::to_string(n) + "/", n);
          std::this_thread::sleep_for(pause(dice));
        }
      });
    }
    callers.clear();
    return std::move(_made);
  }

 private:
  // The server answers every other call by itself, and passes on those between.
  void call(const std::string& id, int number) {
    const std::string folder = number % 2 != 0 ? "/v1/" : "/alone/";
    int attempts = 1;
    const auto wait = [&](double period_s, auto& should_stop, auto deadline) {
      http::wait_unless_stopped(period_s, should_stop, deadline);
      ++attempts;
    };
    std::string error;
    try {
      const llm::LLMClient client({.base_url = _url + folder + id,
                                   .model = "m",
                                   .api_key = getenv("TOVREN_LLM_API_KEY"),  // NOLINT
                                   .max_retries = _retries,
                                   .stream = number % 4 < 2},
                                  {.transport = _transport, .wait = wait});
      const std::string answer = client.chat({llm::user(id)}).content();
      if (answer.find(id) == std::string::npos) error = "the answer of another call: " + answer;
    } catch (const llm::LLMError& failure) {
      error = failure.what();
    }
    const std::lock_guard lock(_mutex);
    _made.attempts[folder + id + "chat/completions"] = attempts;
    if (error.empty()) return;
    ++_made.failed;
    ++_made.errors[error];
  }

  std::string _name, _url;
  int _retries;
  std::shared_ptr<http::Transport> _transport;
  std::mutex _mutex;
  Counts _made;
};

void read(const std::string& log, Counts& counts) {
  std::ifstream file(log);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string port;
    std::string path;
    words >> port >> path;
    if (!counts.attempts.contains(path)) continue;  // another run's, or a complaint
    counts.ports.insert(port);
    ++counts.requests[path];
  }
}

// Prints a row of the table and the errors; true if all is well.
bool judge(const std::string& name, int retries, Counts made) {
  int attempts = 0;
  int requests = 0;
  int unasked = 0;
  for (const auto& [path, count] : made.attempts) {
    attempts += count;
    requests += made.requests[path];
    unasked += std::max(0, made.requests[path] - count);
  }
  const auto calls = static_cast<int>(made.attempts.size());
  std::printf("%-18s%8d%8d%8d%10d%10d%12zu%9d\n", name.c_str(), retries, calls, made.failed,
              attempts, requests, made.ports.size(), unasked);
  int races = 0;
  for (const auto& [text, count] : made.errors) {
    std::printf("  %4d x %s\n", count, text.c_str());
    const bool broke = text.find("connection broke") != std::string::npos;
    const bool race = broke || text.find("empty reply") != std::string::npos;
    races += retries == 0 && race ? count : 0;
  }
  return made.failed == races && races * REQUESTS_PER_RACE <= calls && unasked == 0 &&
         requests >= calls - made.failed;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() != 7) {
    std::fputs("usage: peers NAME URL CA_FILE RETRIES SECONDS SEED LOG\n", stderr);
    return 2;
  }
  const int retries = std::stoi(arguments[3]);
  const int seconds = std::stoi(arguments[4]);
  alarm(static_cast<unsigned>(seconds) + 200);  // a call that never returns ends the run
  Run run(arguments[0], arguments[1], arguments[2], retries);
  Counts made = run.make(std::chrono::seconds(seconds), std::stoul(arguments[5]));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the server writes its log
  read(arguments[6], made);
  return judge(arguments[0], retries, made) ? 0 : 1;
}
