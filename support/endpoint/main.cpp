// Runs a command beside an endpoint of its own, for programs that need one to talk to:
//
//   with_endpoint COMMAND ARG...
//
// An argument {url} becomes the endpoint's base URL, and TOVREN_LLM_API_KEY holds the key that it
// wants. The exit status is the command's; 128 and the signal's number if one ended it, 127 if it
// cannot be run.
//
// The endpoint says "MODEL was asked: " and the start of the user's last message, or, when it is
// asked for a JSON object, {"summary": "that sentence", "tags": ["demo", "loopback"]}. The
// environment may make it say something else and fall silent:
//
//   ENDPOINT_ANSWER  the text of every answer, UTF-8
//   ENDPOINT_LIMIT   so many requests are answered, the rest never
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "endpoint/completion.hpp"
#include "loopback/server.hpp"

namespace {

using endpoint::Json;

constexpr const char* KEY = "with-endpoint-test-key";

std::string variable(const char* name, const std::string& otherwise) {
  const char* const text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  return text == nullptr ? otherwise : text;
}

// What the model says to a request, as far as its limit of tokens allows.
endpoint::Answer answer_to(const Json& asked) {
  constexpr std::size_t QUOTED_BYTES = 100;
  std::string question;
  for (const Json& message : asked.at("messages")) {
    if (message.at("role") == "user") question = message.at("content").get<std::string>();
  }
  std::ranges::replace(question, '\n', ' ');
  std::string text = asked.at("model").get<std::string>() + " was asked: ";
  text += endpoint::start_of(question, QUOTED_BYTES);
  if (asked.contains("response_format")) {
    text = Json{{"summary", text}, {"tags", {"demo", "loopback"}}}.dump();
  }
  text = variable("ENDPOINT_ANSWER", text);
  const auto limit = asked.value("max_tokens", std::size_t{4096}) * endpoint::BYTES_PER_TOKEN;
  if (text.size() <= limit) return {.text = text};
  return {.text = std::string(endpoint::start_of(text, limit)), .finish_reason = "length"};
}

void serve(loopback::Exchange& exchange) {
  const loopback::Request& request = exchange.request();
  const auto key = request.headers.find("authorization");
  if (key == request.headers.end() || key->second != std::string("Bearer ") + KEY) {
    return exchange.reply(401, "the API key is not that of this endpoint", "text/plain");
  }
  try {
    const Json asked = Json::parse(request.body);
    endpoint::reply(exchange, asked, answer_to(asked));
  } catch (const Json::exception& error) {
    exchange.reply(400, error.what(), "text/plain");
  }
}

// `command` ends with a null pointer.
int run(char** command, std::string url) {
  for (char** argument = command; *argument != nullptr; ++argument) {
    if (*argument == std::string_view("{url}")) *argument = url.data();
  }
  pid_t child = 0;
  if (const int error = posix_spawnp(&child, command[0], nullptr, nullptr, command, environ)) {
    std::cerr << command[0] << ": " << std::strerror(error) << "\n";  // NOLINT
    return 127;
  }
  std::signal(SIGINT, SIG_IGN);  // Ctrl-C reaches the command, too, and is for it to judge
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: with_endpoint COMMAND ARG...\n";
    return 2;
  }
  setenv("TOVREN_LLM_API_KEY", KEY, 1);  // NOLINT(concurrency-mt-unsafe): no threads yet
  setenv("no_proxy", "*", 1);            // NOLINT(concurrency-mt-unsafe): no threads yet
  std::atomic<int> left = std::stoi(variable("ENDPOINT_LIMIT", "1000000"));
  const loopback::Server server(
      [&](auto& exchange) { left-- > 0 ? serve(exchange) : exchange.stall(); });
  return run(argv + 1, server.url() + "/v1");
}
