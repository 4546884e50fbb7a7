// A demo endpoint for users without one. It is no language model: it says what is in the prompt, by
// language and relevance.
#pragma once

#include <atomic>
#include <string>

#include "loopback/server.hpp"

namespace ask {

/// Answers chat completions on loopback, streamed or whole. The first request gets a 503, to show a
/// retry.
class Demo {
 public:
  Demo();

  [[nodiscard]] std::string base_url() const { return _server.url() + "/v1"; }

 private:
  std::atomic<bool> _busy = true;
  loopback::Server _server;
};

}  // namespace ask
