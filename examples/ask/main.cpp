// Asks a language model about a source tree.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "ask/demo.hpp"
#include "ask/options.hpp"
#include "ask/sources.hpp"

namespace {

namespace copilot = tovren_mapstead::engines::copilot;
namespace llm = tovren_mapstead::engines::llm;
using Clock = std::chrono::steady_clock;

constexpr const char* COPILOT = "copilot";
constexpr std::size_t SOURCE_BUDGET = std::size_t{256} << 10U;

enum Exit : int { ANSWERED = 0, FAILED = 1, MISUSED = 2, LATE = 3, INTERRUPTED = 130 };

volatile std::sig_atomic_t interrupted = 0;

void interrupt(int) {
  interrupted = 1;
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Replaces control characters, which a terminal would interpret.
std::string one_line(std::string_view text) {
  std::string line(text);
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
  }
  return line;
}

// Shows on a terminal that the call is in progress, and removes the line at the end.
class Progress {
 public:
  Progress() = default;
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  ~Progress() {
    if (_drawn) std::fputs("\r\x1b[K", stderr);
  }

  void show() {
    const auto now = Clock::now();
    if (!_terminal || now - _last < std::chrono::milliseconds(100)) return;
    _last = now;
    _drawn = true;
    std::fprintf(stderr, "\rwaiting for the answer: %.1f s", seconds_since(_start));
    std::fflush(stderr);
  }

 private:
  const bool _terminal = isatty(STDERR_FILENO) == 1;
  const Clock::time_point _start = Clock::now();
  Clock::time_point _last;
  bool _drawn = false;
};

llm::LLMClient build_client(const ask::Options& options, const ask::Demo* demo) {
  tovren_mapstead::Config config;
  auto& gen = config.generation;
  gen.provider = options.provider;
  gen.base_url = options.base_url;
  gen.model = options.model;
  gen.timeout_s = options.timeout_s.value_or(gen.timeout_s);
  gen.max_retries = options.retries.value_or(gen.max_retries);
  gen.temperature = options.temperature.value_or(gen.temperature);
  gen.max_output_tokens = options.max_tokens.value_or(gen.max_output_tokens);
  gen.stream = options.stream;
  if (demo == nullptr) return llm::build_llm_client_from_config(config);
  // The demo does not get the API key from the environment.
  return llm::LLMClient({.base_url = demo->base_url(),
                         .model = gen.model.empty() ? "demo" : gen.model,
                         .api_key = "demo-key",
                         .timeout_s = gen.timeout_s,
                         .max_retries = gen.max_retries,
                         .temperature = gen.temperature,
                         .max_tokens = gen.max_output_tokens,
                         .stream = gen.stream});
}

const char* transport_of(const ask::Options& options) {
  if (options.provider == COPILOT) return "as GitHub Copilot";
  return llm::_openai_available() ? "through the OpenAI client library" : "over plain HTTP";
}

llm::Messages messages_for(const ask::Options& options) {
  if (options.prompt) return {llm::user(*options.prompt)};
  const auto files = ask::gather(options.directory, SOURCE_BUDGET);
  return {llm::system("You answer questions about source trees from the files that you are given, "
                      "briefly and exactly."),
          llm::user(ask::to_prompt(files, options.question))};
}

int run(const ask::Options& options) {
  std::unique_ptr<ask::Demo> demo;
  if (options.base_url.empty() && options.provider != COPILOT) {
    demo = std::make_unique<ask::Demo>();
    std::cerr << "no --base-url: starting a demo endpoint at " << demo->base_url() << "\n";
  }
  const llm::LLMClient client = build_client(options, demo.get());
  if (options.provider == COPILOT && !client.is_configured()) {
    std::cerr << "ask: " << copilot::NO_CREDENTIAL << "\n";
    return FAILED;
  }
  std::cerr << "asking " << one_line(client.model()) << " " << transport_of(options) << "\n";
  const llm::Messages messages = messages_for(options);
  const auto start = Clock::now();
  std::optional<Clock::time_point> deadline;
  if (options.deadline_s) {
    const std::chrono::duration<double> most = std::chrono::hours(24 * 365);
    const auto period = std::min(std::chrono::duration<double>(*options.deadline_s), most);
    deadline = start + std::chrono::duration_cast<Clock::duration>(period);
  }
  std::optional<Progress> progress(std::in_place);
  const auto should_stop = [&progress] {
    progress->show();
    return interrupted != 0;
  };
  try {
    const llm::LLMResult result = client.chat(
        messages,
        {.response_json = options.json, .should_stop = should_stop, .deadline = deadline});
    progress.reset();
    std::cout << result.content() << std::endl;
    std::fprintf(stderr,
                 "model=%s prompt_tokens=%lld completion_tokens=%lld finish_reason=%s "
                 "elapsed_s=%.2f\n",
                 one_line(result.model()).c_str(), static_cast<long long>(result.prompt_tokens()),
                 static_cast<long long>(result.completion_tokens()),
                 one_line(result.finish_reason().value_or("-")).c_str(), seconds_since(start));
    return std::cout ? ANSWERED : FAILED;
  } catch (const llm::LLMError& error) {
    progress.reset();
    std::cerr << "ask: " << one_line(error.what()) << "\n";
    if (dynamic_cast<const llm::LLMStopped*>(&error) != nullptr) return INTERRUPTED;
    return dynamic_cast<const llm::LLMTimeout*>(&error) != nullptr ? LATE : FAILED;
  }
}

}  // namespace

int main(int argc, char** argv) {
  struct sigaction action {};

  action.sa_handler = interrupt;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // a second Ctrl-C kills the process
  sigaction(SIGINT, &action, nullptr);
  try {
    const ask::Options options = ask::parse({argv + 1, argv + argc});
    if (options.help) {
      std::cout << ask::HELP;
      return ANSWERED;
    }
    return run(options);
  } catch (const ask::UsageError& error) {
    std::cerr << "ask: " << error.what() << "; see --help\n";
    return MISUSED;
  } catch (const std::invalid_argument& error) {
    std::cerr << "ask: " << one_line(error.what()) << "\n";
    return MISUSED;
  } catch (const std::exception& error) {
    std::cerr << "ask: " << one_line(error.what()) << "\n";
    return FAILED;
  }
}
