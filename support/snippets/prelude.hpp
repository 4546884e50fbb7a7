// What the code in the documentation takes as given, and what its hidden lines look with. The names
// that a reader meets (`llm`, `http`, `client`, `messages`) are those that docs/index.md explains.
#pragma once

#include <chrono>
#include <cstdio>
#include <deque>
#include <exception>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/llm.hpp"

#include "loopback/server.hpp"
#include "playback/playback.hpp"

// A snippet shows what can be had; it need not use all of it, and may name things anew.
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wunused-variable"

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;
using namespace std::chrono_literals;  // NOLINT(google-global-names-in-headers)

namespace snippets {

/// Fails the fragment, naming its line.
inline void check(bool holds, const std::string& told = "", int line = __builtin_LINE()) {
  if (holds) return;
  throw std::logic_error("line " + std::to_string(line) + " does not hold" +
                         (told.empty() ? "" : ": " + told));
}

/// A chat-completions endpoint on loopback. It does what it is told, one thing a request and the
/// last for ever; untold, it answers "Hello.". It gives Copilot tokens, too.
class Endpoint {
 public:
  using Handler = loopback::Server::Handler;

  explicit Endpoint(const loopback::Options& options = {})
      : _server([this](auto& exchange) { next(exchange.request())(exchange); }, options) {}

  void does(Handler handler) {
    const std::lock_guard lock(_mutex);
    _handlers.push_back(std::move(handler));
  }

  void replies(int status, const std::string& body, const std::string& type = "application/json") {
    does([=](loopback::Exchange& exchange) { exchange.reply(status, body, type); });
  }

  void streams(const std::string& events) { replies(200, events, "text/event-stream"); }

  /// With that text, streamed if a stream is asked for.
  void answers(const std::string& content, const std::string& finish_reason = "stop") {
    does([=](loopback::Exchange& exchange) { answer(exchange, content, finish_reason); });
  }

  void stalls() {
    does([](loopback::Exchange& exchange) { exchange.stall(); });
  }

  /// The requests of this fragment.
  [[nodiscard]] std::vector<loopback::Request> asked() const {
    const std::lock_guard lock(_mutex);
    return _asked;
  }

  /// What GitHub says to the next requests for a Copilot token.
  void exchanges(int status, const std::string& body) {
    const std::lock_guard lock(_mutex);
    _exchange = [=](loopback::Exchange& exchange) { exchange.reply(status, body); };
  }

  void forget() {
    const std::lock_guard lock(_mutex);
    _exchange = give_token;
    _handlers.clear();
    _asked.clear();
  }

  [[nodiscard]] std::string url() const { return _server.url(); }

  [[nodiscard]] const std::string& certificate() const { return _server.certificate(); }

 private:
  static void answer(loopback::Exchange& exchange, const std::string& content,
                     const std::string& finish_reason) {
    const auto asked = nlohmann::json::parse(exchange.request().body);
    const bool stream = asked.value("stream", false);
    const nlohmann::json reply = {{"model", asked.at("model")},
                                  {"choices",
                                   {{{stream ? "delta" : "message", {{"content", content}}},
                                     {"finish_reason", finish_reason}}}},
                                  {"usage", {{"prompt_tokens", 9}, {"completion_tokens", 3}}}};
    if (!stream) return exchange.reply(200, reply.dump());
    exchange.reply(200, "data: " + reply.dump() + "\n\ndata: [DONE]\n\n", "text/event-stream");
  }

  static void give_token(loopback::Exchange& exchange) {
    exchange.reply(200, R"({"token":"made-up-token","expires_at":9e9,"refresh_in":1500})");
  }

  Handler next(const loopback::Request& request) {
    const std::lock_guard lock(_mutex);
    if (request.target == "/copilot_internal/v2/token") return _exchange;
    _asked.push_back(request);
    if (_handlers.empty()) {
      return [](loopback::Exchange& exchange) { answer(exchange, "Hello.", "stop"); };
    }
    Handler handler = _handlers.front();
    if (_handlers.size() > 1) _handlers.pop_front();
    return handler;
  }

  mutable std::mutex _mutex;
  Handler _exchange = give_token;
  std::deque<Handler> _handlers;
  std::vector<loopback::Request> _asked;
  loopback::Server _server;
};

inline Endpoint endpoint;

/// Makes a call with these settings that ends at the endpoint on loopback wherever it was meant to
/// go, and checks that this was `origin` and `path`.
inline llm::LLMResult carried(const llm::LLMConfig& config, const std::string& origin,
                              const std::string& path, int line = __builtin_LINE()) {
  const auto detour = std::make_shared<playback::Detour>(endpoint.url());
  const llm::LLMClient client(config, {.transport = detour});
  llm::LLMResult result = client.chat({llm::user("Hello")});
  check(detour->meant_for().contains(origin), origin, line);
  check(endpoint.asked().back().target == path, endpoint.asked().back().target, line);
  return result;
}

inline double seconds_since(http::Clock::time_point start) {
  return std::chrono::duration<double>(http::Clock::now() - start).count();
}

/// Runs the fragments of a page in order and says which of them fail.
inline int run(const std::vector<std::pair<const char*, void (*)()>>& fragments) {
  int failed = 0;
  for (const auto& [name, fragment] : fragments) {
    endpoint.forget();
    std::string told = "it throws what is no exception";
    try {
      fragment();
      continue;
    } catch (const std::exception& error) {
      told = error.what();
    } catch (...) {
    }
    ++failed;
    std::fprintf(stderr, "%s: %s\n", name, told.c_str());
  }
  return failed == 0 ? 0 : 1;
}

}  // namespace snippets

using snippets::check;
using snippets::endpoint;

/// What every page takes as given.
inline const llm::LLMClient client({.base_url = endpoint.url() + "/v1",
                                    .model = "some-model",
                                    .api_key = "sk-made-up-key"});
inline const llm::Messages messages{llm::system("You answer in JSON."),
                                    llm::user("Where are retries made?")};
