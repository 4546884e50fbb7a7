// Calls in an application with an event loop: threads make the calls, and the loop gets the
// answers.
//   TOVREN_LLM_API_KEY=... event_loop URL MODEL SECONDS QUESTION...
// After SECONDS it stops the calls that have no answer yet, and exits.
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include <poll.h>
#include <sys/eventfd.h>
#include <tovren_mapstead/engines/llm.hpp>
#include <unistd.h>

namespace llm = tovren_mapstead::engines::llm;

struct Calls {
  ~Calls() { close(answered); }

  // Runs on each thread until `stop`, which cancels the current call. Calls after it fail at once.
  void make(const std::stop_token& stop) {
    std::unique_lock lock(mutex);
    while (changed.wait(lock, stop, [this] { return !questions.empty(); })) {
      const llm::Messages asked{llm::user(questions.front())};
      questions.pop_front();
      lock.unlock();
      std::string answer;
      try {
        answer = client.chat(asked, {.should_stop = stop}).content();
      } catch (const std::exception& error) {
        answer = std::string("failed: ") + error.what();
      }
      lock.lock();
      answers.push_back(answer);
      eventfd_write(answered, 1);
    }
  }

  const llm::LLMClient client;
  std::deque<std::string> questions;
  std::deque<std::string> answers{};
  std::mutex mutex{};                                           // for both queues
  std::condition_variable_any changed{};                        // notify it after adding a question
  const int answered = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);  // becomes readable after an answer
};

int main(int argc, char** argv) {
  try {
    const int seconds = argc < 5 ? 0 : std::atoi(argv[3]);
    if (seconds < 1) throw std::invalid_argument("usage: event_loop URL MODEL SECONDS QUESTION...");
    Calls calls{llm::build_llm_client_from_config({.base_url = argv[1], .model = argv[2]}),
                {argv + 4, argv + argc}};
    std::deque<std::jthread> threads(4);
    for (auto& thread : threads) thread = std::jthread([&](const auto& stop) { calls.make(stop); });

    pollfd ready{.fd = calls.answered, .events = POLLIN, .revents = 0};
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int open = argc - 4;
    while (open > 0 && std::chrono::steady_clock::now() < end) {
      if (poll(&ready, 1, 100) == 0) std::cerr << "tick\n";  // other work of the loop
      eventfd_t count = 0;
      eventfd_read(calls.answered, &count);
      std::unique_lock lock(calls.mutex);
      const std::deque<std::string> answers = std::exchange(calls.answers, {});
      lock.unlock();
      for (const std::string& answer : answers) std::cout << answer << std::endl;
      open -= static_cast<int>(answers.size());
    }
    for (auto& thread : threads) thread.request_stop();  // all of them before the first join
    if (open > 0) throw std::runtime_error(std::to_string(open) + " calls were stopped");
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
