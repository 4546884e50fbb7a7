// Makes calls through a real server that ends idle connections after a second, with pauses about as
// long, and compares what was made with what the server saw. See tools/peers.
//
//   peers NAME URL CA_FILE RETRIES SECONDS SEED LOG
//
// Each call has a path of its own, so that LOG, with the path of a request a line, tells whether
// one came twice. Prints a row of a table, then the texts of the errors.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
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

// One call in so many may meet a server that closes in the very moment of sending. No client can
// see that, and only a retry helps.
constexpr int CALLS_PER_RACE = 50;

// The attempts and the requests of one call.
struct Made {
  int attempts = 0;
  int requests = 0;
};

// What all callers share.
struct Run {
  std::string url;
  int retries;
  std::shared_ptr<http::Transport> transport;
  std::mutex mutex{};
  std::map<std::string, Made> calls{};  // by path
  std::vector<std::string> errors{};
};

// Half of the pauses are about a second, when the server closes.
std::chrono::duration<double> pause(std::mt19937_64& dice) {
  const bool near = std::bernoulli_distribution(0.5)(dice);
  return std::chrono::duration<double>(
      std::uniform_real_distribution(near ? 0.97 : 0.0, near ? 1.03 : 3.0)(dice));
}

void call(Run& run, const std::string& path, bool stream) {
  Made made{.attempts = 1};
  const auto wait = [&](double period_s, auto& should_stop, auto deadline) {
    http::wait_unless_stopped(period_s, should_stop, deadline);
    ++made.attempts;
  };
  std::string error;
  try {
    const llm::LLMClient client({.base_url = run.url + path,
                                 .model = "m",
                                 .api_key = getenv("TOVREN_LLM_API_KEY"),  // NOLINT
                                 .max_retries = run.retries,
                                 .stream = stream},
                                {.transport = run.transport, .wait = wait});
    const std::string answer = client.chat({llm::user(path)}).content();
    if (answer.find(path) == std::string::npos) error = "the answer of another call: " + answer;
  } catch (const llm::LLMError& failure) {
    error = failure.what();
  }
  const std::lock_guard lock(run.mutex);
  run.calls[path + "chat/completions"] = made;
  if (!error.empty()) run.errors.push_back(error);
}

// Prints a row of the table and the errors; true if all is well.
bool judge(const std::string& name, const Run& run) {
  int requests = 0;
  int unasked = 0;
  for (const auto& [path, made] : run.calls) {
    requests += made.requests;
    unasked += std::max(0, made.requests - made.attempts);
  }
  const auto calls = static_cast<int>(run.calls.size());
  const auto failed = static_cast<int>(run.errors.size());
  std::printf("%-18s%8d%8d%8d%10d%9d\n", name.c_str(), run.retries, calls, failed, requests,
              unasked);
  for (const std::string& error : run.errors) std::printf("  %s\n", error.c_str());
  const auto races = std::ranges::count_if(run.errors, [](const std::string& error) {
    return error.find("connection broke") != std::string::npos ||
           error.find("empty reply") != std::string::npos;
  });
  return failed == races && failed * CALLS_PER_RACE <= (run.retries == 0 ? calls : 0) &&
         unasked == 0 && requests >= calls - failed;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() != 7) {
    std::fputs("usage: peers NAME URL CA_FILE RETRIES SECONDS SEED LOG\n", stderr);
    return 2;
  }
  const std::string& name = arguments[0];
  Run run{.url = arguments[1],
          .retries = std::stoi(arguments[3]),
          .transport = http::make_transport({.ca_file = arguments[2]})};
  const int seconds = std::stoi(arguments[4]);
  const auto end = http::Clock::now() + std::chrono::seconds(seconds);
  alarm(static_cast<unsigned>(seconds) + 200);  // a call that never returns ends the run
  std::vector<std::jthread> callers;
  for (int i = 0; i < CALLERS; ++i) {
    callers.emplace_back([&, i] {
      std::mt19937_64 dice(std::stoul(arguments[5]) * CALLERS + static_cast<unsigned>(i / GANG));
      for (int n = 0; http::Clock::now() < end; ++n) {
        // The server answers every other call by itself, and passes on those between.
        const std::string folder = (n % 2 != 0 ? "/v1/" : "/alone/") + name;
        call(run, folder + "." + std::to_string(i) + "." + std::to_string(n) + "/", n % 4 < 2);
        std::this_thread::sleep_for(pause(dice));
      }
    });
  }
  callers.clear();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the server writes its log
  std::ifstream log(arguments[6]);
  for (std::string path; std::getline(log, path);) {
    const auto made = run.calls.find(path);
    if (made != run.calls.end()) ++made->second.requests;  // or it is another run's
  }
  return judge(name, run) ? 0 : 1;
}
