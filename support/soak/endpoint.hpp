// The other end of a soak run: serves each call what its plan says, and keeps account of it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "loopback/server.hpp"
#include "soak/plan.hpp"

namespace soak {

/// A chat endpoint over plain TCP and another over TLS; the plain one gives Copilot tokens, too.
class Endpoint {
 public:
  explicit Endpoint(std::uint64_t seed) : _seed(seed) {}

  /// Begins to serve `call`, which has to live until it is closed.
  void open(const Call& call);

  /// Ends that and says how many requests came.
  int close(const Call& call);

  /// The bearer key, and the credential that is exchanged for Copilot tokens.
  [[nodiscard]] std::string key() const { return secret(_seed); }

  /// Requests that nobody should have sent: elsewhere, without the key, with another prompt.
  [[nodiscard]] int strange() const { return _strange; }

  [[nodiscard]] const loopback::Server& plain() const { return _plain; }

  [[nodiscard]] const loopback::Server& tls() const { return _tls; }

 private:
  struct Open {
    const Call* call;
    int requests = 0;
  };

  void handle(loopback::Exchange& exchange);
  void give_token(loopback::Exchange& exchange);
  std::optional<Call> begin(std::uint64_t id, const std::string& prompt, Step& step);

  const std::uint64_t _seed;
  std::mutex _mutex;
  std::map<std::uint64_t, Open> _open;
  std::atomic<int> _strange = 0;
  std::atomic<std::uint64_t> _tokens = 0;
  loopback::Server _plain{[this](loopback::Exchange& exchange) { handle(exchange); }};
  loopback::Server _tls{[this](loopback::Exchange& exchange) { handle(exchange); }, {.tls = true}};
};

}  // namespace soak
