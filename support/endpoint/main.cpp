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
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "endpoint/completion.hpp"

namespace {

using endpoint::Json;

constexpr const char* KEY = "with-endpoint-test-key";

std::optional<std::string> variable(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no threads yet
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

int limit_of_requests() {
  const std::string text = variable("ENDPOINT_LIMIT").value_or(std::to_string(INT_MAX));
  int limit = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), limit);
  if (error != std::errc{} || *end != '\0') {
    throw std::invalid_argument("ENDPOINT_LIMIT is no number: " + text);
  }
  return limit;
}

// `message` may quote bytes of a request that are no UTF-8.
std::string error_body(const std::string& message) {
  const Json body{{"error", {{"message", message}}}};
  return body.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// What the model says to a request, as far as its limit of tokens allows.
endpoint::Answer answer_to(const Json& asked, const std::optional<std::string>& told) {
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
  if (told) text = *told;
  const auto limit = asked.value("max_tokens", std::size_t{4096}) * endpoint::BYTES_PER_TOKEN;
  if (text.size() <= limit) return {.text = text};
  return {.text = std::string(endpoint::start_of(text, limit)), .finish_reason = "length"};
}

void serve(loopback::Exchange& exchange, const std::optional<std::string>& told) {
  const loopback::Request& request = exchange.request();
  const auto key = request.headers.find("authorization");
  if (key == request.headers.end() || key->second != std::string("Bearer ") + KEY) {
    return exchange.reply(401, error_body("the API key is not that of this endpoint"));
  }
  if (request.method != "POST" || !request.target.ends_with("/chat/completions")) {
    return exchange.reply(404, error_body("there is nothing but POST .../chat/completions"));
  }
  try {
    const Json asked = Json::parse(request.body);
    endpoint::reply(exchange, asked, answer_to(asked, told));
  } catch (const Json::exception& error) {
    exchange.reply(400, error_body(error.what()));
  }
}

int run(std::vector<std::string> command, const std::string& url) {
  std::ranges::replace(command, "{url}", url);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  pid_t child = 0;
  const int error = posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ);
  if (error != 0) {
    std::cerr << command[0] << ": " << std::generic_category().message(error) << "\n";
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
  try {
    setenv("TOVREN_LLM_API_KEY", KEY, 1);  // NOLINT(concurrency-mt-unsafe): no threads yet
    setenv("no_proxy", "*", 1);            // NOLINT(concurrency-mt-unsafe): no threads yet
    const std::optional<std::string> told = variable("ENDPOINT_ANSWER");
    std::atomic<int> left = limit_of_requests();
    const loopback::Server server([&](loopback::Exchange& exchange) {
      left-- > 0 ? serve(exchange, told) : exchange.stall();
    });
    return run({argv + 1, argv + argc}, server.url() + "/v1");
  } catch (const std::exception& error) {
    std::cerr << "with_endpoint: " << error.what() << "\n";
    return 127;
  }
}
