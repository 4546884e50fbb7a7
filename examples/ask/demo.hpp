// An endpoint for those who have none: it knows no language, but it can count, and it answers from
// the files that it is sent.
#pragma once

#include <string>

#include "loopback/server.hpp"

namespace ask {

/// Answers chat completions on loopback, streamed or whole. The first request gets a 503, so that a
/// retry can be seen.
class Demo {
 public:
  Demo();

  [[nodiscard]] std::string base_url() const { return _server.url() + "/v1"; }

 private:
  std::atomic<bool> _busy = true;
  loopback::Server _server;
};

}  // namespace ask
