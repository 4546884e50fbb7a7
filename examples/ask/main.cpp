// Asks a language model about a source tree.
#include <algorithm>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/http/observe.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "ask/client.hpp"
#include "ask/demo.hpp"
#include "ask/input.hpp"
#include "ask/options.hpp"
#include "ask/prompt.hpp"
#include "ask/screen.hpp"
#include "ask/selection.hpp"
#include "ask/text.hpp"

namespace {

namespace copilot = tovren_mapstead::engines::copilot;
namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;
using Clock = std::chrono::steady_clock;

constexpr std::string_view INSTRUCTIONS =
    "You answer questions about source trees from the files that you are given, briefly and "
    "exactly. A line like [lines 20-41 of 323] says which lines of a file follow; others are left "
    "out.";

enum Exit : int { ANSWERED = 0, FAILED = 1, MISUSED = 2, LATE = 3, INTERRUPTED = 130 };

volatile std::sig_atomic_t interrupted = 0;

void interrupt(int) {
  interrupted = 1;
}

bool was_interrupted() {
  return interrupted != 0;
}

// What the prompt may have beside the instructions, in bytes.
std::size_t budget_of(const ask::Options& options) {
  const std::size_t bytes = static_cast<std::size_t>(options.budget) * ask::BYTES_PER_TOKEN;
  return bytes - std::min(bytes, INSTRUCTIONS.size());
}

llm::Messages messages_for(const ask::Options& options) {
  if (options.prompt) return {llm::user(*options.prompt)};
  ask::Piped piped = ask::read_piped(budget_of(options), was_interrupted);
  ask::Prompt prompt;
  std::string sent = piped.cut ? "the start of standard input" : "standard input";
  if (piped.text.empty()) {
    ask::Selection selection = ask::select(options.directory, options.question, budget_of(options));
    sent = ask::grouped(selection.paths.size()) + " of " + ask::grouped(selection.files_in_tree) +
           " files";
    prompt = std::move(selection.prompt);
  } else {
    prompt.question = ask::printable(options.question, ask::Lines::keep);
    prompt.sections.push_back({ask::STANDARD_INPUT, std::move(piped.text)});
  }
  llm::Messages messages{llm::system(std::string(INSTRUCTIONS)), llm::user(ask::to_text(prompt))};
  const std::size_t bytes = messages[0].content.size() + messages[1].content.size();
  std::cerr << "sent " << sent << ", " << ask::grouped(bytes / ask::BYTES_PER_TOKEN) << " tokens\n";
  return messages;
}

int print_files(const ask::Options& options) {
  const auto selection = ask::select(options.directory, options.question, budget_of(options));
  for (const std::string& path : selection.paths) std::cout << path << "\n";
  if (!std::cout.flush()) throw std::runtime_error("cannot write the list");
  return ANSWERED;
}

void print_error(const std::exception& error) {
  std::cerr << "ask: " << ask::printable(error.what(), ask::Lines::join) << "\n";
}

void print_figures(const llm::LLMResult& result, Clock::time_point start) {
  const std::chrono::duration<double> passed = Clock::now() - start;
  std::fprintf(stderr,
               "model=%s prompt_tokens=%lld completion_tokens=%lld finish_reason=%s "
               "elapsed_s=%.2f\n",
               ask::printable(result.model(), ask::Lines::join).c_str(),
               static_cast<long long>(result.prompt_tokens()),
               static_cast<long long>(result.completion_tokens()),
               ask::printable(result.finish_reason().value_or("-"), ask::Lines::join).c_str(),
               passed.count());
}

llm::LLMResult call(const llm::LLMClient& client, const llm::Messages& messages,
                    const ask::Options& options, ask::Screen& screen) {
  llm::ChatOptions asked{.response_json = options.json, .should_stop = [&screen] {
                           screen.tick();
                           return was_interrupted();
                         }};
  if (options.deadline_s) asked.deadline = std::chrono::duration<double>(*options.deadline_s);
  return client.chat(messages, asked);
}

int run(const ask::Options& options) {
  std::unique_ptr<ask::Demo> demo;
  if (options.base_url.empty() && options.provider != ask::COPILOT) {
    demo = std::make_unique<ask::Demo>();
    std::cerr << "no --base-url: starting a demo endpoint at " << demo->base_url() << "\n";
  }
  std::optional<ask::Screen> screen;
  const llm::LLMClient client =
      ask::build_client(options, demo.get(), http::observe([&screen](const auto& event) {
                          if (screen) screen->observe(event);
                        }));
  if (options.provider == ask::COPILOT && !client.is_configured()) {
    throw std::runtime_error(copilot::NO_CREDENTIAL);
  }
  std::cerr << "asking " << ask::printable(client.model(), ask::Lines::join) << " "
            << ask::transport_name(options) << "\n";
  const llm::Messages messages = messages_for(options);
  const auto start = Clock::now();
  try {
    screen.emplace();
    const llm::LLMResult result = call(client, messages, options, *screen);
    const bool written = screen->finish(result.content());
    screen.reset();
    print_figures(result, start);
    if (!written) throw std::runtime_error("cannot write the answer");
    return ANSWERED;
  } catch (const llm::LLMError& error) {
    screen.reset();
    print_error(error);
    if (dynamic_cast<const llm::LLMStopped*>(&error) != nullptr) return INTERRUPTED;
    return dynamic_cast<const llm::LLMTimeout*>(&error) != nullptr ? LATE : FAILED;
  }
}

}  // namespace

int main(int argc, char** argv) {
  // For the width of characters on a terminal.
  std::setlocale(LC_CTYPE, "C.UTF-8");  // NOLINT(concurrency-mt-unsafe): no threads yet

  struct sigaction action {};

  action.sa_handler = interrupt;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // a second Ctrl-C kills the process
  sigaction(SIGINT, &action, nullptr);
  try {
    const ask::Options options = ask::parse({argv + 1, argv + argc});
    if (options.help) {
      if (!(std::cout << ask::HELP << std::flush))
        throw std::runtime_error("cannot write the help");
      return ANSWERED;
    }
    return options.files ? print_files(options) : run(options);
  } catch (const ask::UsageError& error) {
    std::cerr << "ask: " << ask::printable(error.what(), ask::Lines::join) << "; see --help\n";
    return MISUSED;
  } catch (const std::invalid_argument& error) {
    print_error(error);
    return MISUSED;
  } catch (const std::exception& error) {
    print_error(error);
    return FAILED;
  }
}
