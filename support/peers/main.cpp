// Makes calls through a server that ends idle connections after a second, with pauses about as
// long:
//
//   peers NAME URL CA_FILE RETRIES SECONDS SEED
//
// Prints a line for each call: its path, which no other call has, how many attempts it made, and
// the error's text if it failed. See tools/peers, which compares them with what the server saw.
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "tovren_mapstead/engines/llm.hpp"

namespace {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

constexpr unsigned CALLERS = 16;

// So many make the same pauses, to have several connections idle at a time.
constexpr unsigned GANG = 8;

// Half of the pauses are about a second, when the server closes.
std::chrono::duration<double> pause(std::mt19937_64& dice) {
  const bool near = std::bernoulli_distribution(0.5)(dice);
  return std::chrono::duration<double>(
      std::uniform_real_distribution(near ? 0.97 : 0.0, near ? 1.03 : 3.0)(dice));
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() != 6) {
    std::fputs("usage: peers NAME URL CA_FILE RETRIES SECONDS SEED\n", stderr);
    return 2;
  }
  const auto transport = http::make_transport({.ca_file = arguments[2]});
  const int seconds = std::stoi(arguments[4]);
  const auto end = http::Clock::now() + std::chrono::seconds(seconds);
  alarm(static_cast<unsigned>(seconds) + 200);  // a call that never returns ends the run

  const auto call = [&](const std::string& path, bool stream) {
    int attempts = 1;
    const auto wait = [&](double period_s, auto& should_stop, auto deadline) {
      http::wait_unless_stopped(period_s, should_stop, deadline);
      ++attempts;
    };
    std::string error;
    try {
      const llm::LLMClient client({.base_url = arguments[1] + path,
                                   .model = "m",
                                   .api_key = getenv("TOVREN_LLM_API_KEY"),  // NOLINT
                                   .max_retries = std::stoi(arguments[3]),
                                   .stream = stream},
                                  {.transport = transport, .wait = wait});
      const std::string answer = client.chat({llm::user(path)}).content();
      if (answer.find(path) == std::string::npos) error = "the answer of another call: " + answer;
    } catch (const llm::LLMError& failure) {
      error = failure.what();
    }
    std::printf("%schat/completions %d %s\n", path.c_str(), attempts, error.c_str());
  };
  std::vector<std::jthread> callers;
  callers.reserve(CALLERS);
  for (unsigned i = 0; i < CALLERS; ++i) {
    callers.emplace_back([&, i] {
      std::mt19937_64 dice(std::stoul(arguments[5]) * CALLERS + i / GANG);
      for (unsigned n = 0; http::Clock::now() < end; ++n) {
        // The server answers every other call by itself, and passes on those between.
        const std::string folder = (n % 2 != 0 ? "/v1/" : "/alone/") + arguments[0];
        call(folder + "." + std::to_string(i) + "." + std::to_string(n) + "/", n % 4 < 2);
        std::this_thread::sleep_for(pause(dice));
      }
    });
  }
}
