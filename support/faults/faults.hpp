// Calls to servers that misbehave: what such a call should come to, and what it comes to.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"

#include "faults/catalogue.hpp"
#include "loopback/server.hpp"

namespace faults {

namespace http = tovren_mapstead::engines::http;

/// How a call ends: "answer", or the name of the exception, and the answer or the error's text.
struct Outcome {
  std::string end;
  std::string text{};
  std::string causes{};  ///< The texts of the nested errors.
  int requests = 0;
  int attempts = 1;
  double seconds = 0;  ///< From the start to the end of the call, or from its bound if it had one.
};

/// Runs a call.
[[nodiscard]] Outcome outcome_of(const std::function<std::string()>& call);

/// The request that faults are met by.
enum class Asked : std::uint8_t { streamed, whole, token };

/// What `fault` means for an attempt with such a request.
[[nodiscard]] Expect expect(const Fault& fault, Asked asked);

/// What a call of so many attempts comes to that meets the faults of `script`, one a request; null:
/// an answer. The text is a part of the error's, or empty for an answer by script.
[[nodiscard]] Outcome predict(const std::vector<const Fault*>& script, Asked asked, int attempts);

/// What ends a call from outside.
enum class Bound : std::uint8_t { none, stop, deadline };

/// A server and a call to it.
struct Call {
  std::string name;
  loopback::Server::Handler serve = [](loopback::Exchange& exchange) { exchange.close(); };
  loopback::Options options{};
  std::string url{};              ///< Where the call goes instead of to the server.
  std::string host{};             ///< The server's other name, to which the call speaks TLS.
  Asked asked = Asked::streamed;  ///< `token`: the server stands for both of Copilot's endpoints.
  bool trusted = true;            ///< The server's certificate.
  double timeout_s = 30;          ///< The client's.
  int attempts = 2;
  std::size_t size = 10;  ///< Bytes of the message.
  Bound bound = Bound::none;
  std::chrono::milliseconds until{60};  ///< From the call to its bound.
  http::Wait wait = [](double, auto&, auto) {};
};

/// Makes a call.
[[nodiscard]] Outcome make(const Call& call);

/// Whether the text shows a part of the key that counts, in any spelling, or the password.
[[nodiscard]] bool shows_secret(std::string_view text);

/// Makes a logger that prints nothing the client's.
void mute_log();

/// How many entries a folder has: "/proc/self/fd" one for each descriptor of this process.
[[nodiscard]] std::ptrdiff_t entries(const char* folder = "/proc/self/fd");

/// How many connections a program that this process starts would inherit.
[[nodiscard]] int inheritable_connections();

/// A transport that trusts a server's certificate, if it has one.
[[nodiscard]] std::shared_ptr<http::Transport> trusting(const loopback::Server& server);

/// From now on transports made without another choice trust the authorities in `pem` and do not
/// read those of the system, which takes longer than a bound may last.
void set_authorities(const std::string& pem);

}  // namespace faults
