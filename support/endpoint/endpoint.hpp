// A chat-completions endpoint on loopback that also gives Copilot tokens.
#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "loopback/server.hpp"

namespace endpoint {

using Handler = loopback::Server::Handler;

/// A handler that sends a whole reply.
[[nodiscard]] Handler sending(int status, const std::string& body,
                              const std::string& type = "application/json");

/// A handler that answers with `text`, streamed if a stream is asked for.
[[nodiscard]] Handler answering(std::string text, std::string finish_reason = "stop");

/// What it does for a chat request: the next handler that was added, the last one for ever, or, if
/// none was added, that of the constructor. Thread-safe.
class Endpoint {
 public:
  explicit Endpoint(Handler chat = answering("Hello."), const loopback::Options& options = {});

  void does(Handler handler);

  void answers(const std::string& text, const std::string& finish_reason = "stop") {
    does(answering(text, finish_reason));
  }

  void replies(int status, const std::string& body, const std::string& type = "application/json") {
    does(sending(status, body, type));
  }

  /// Sets what requests for a Copilot token get.
  void exchanges(int status, const std::string& body);

  /// The last chat requests, 16 at most.
  [[nodiscard]] std::deque<loopback::Request> asked() const;

  /// Forgets the requests, and all that was set after the construction.
  void forget();

  [[nodiscard]] const loopback::Server& server() const { return _server; }

  [[nodiscard]] std::string url() const { return _server.url(); }

  [[nodiscard]] const std::string& certificate() const { return _server.certificate(); }

 private:
  Handler next(const loopback::Request& request);

  mutable std::mutex _mutex;
  const Handler _chat;
  Handler _token;
  std::deque<Handler> _handlers;
  std::deque<loopback::Request> _asked;
  loopback::Server _server;
};

}  // namespace endpoint
