// Servers that misbehave, and calls to them: whatever can be seen of how such a call ends.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"

#include "loopback/server.hpp"

namespace faults {

namespace http = tovren_mapstead::engines::http;

/// The key of every call; it holds characters that JSON, URLs and Base64 write in other ways.
inline const std::string KEY = "sk-Fa/ult+Key=12345";

/// The key as it is, in JSON, in a URL and in Base64; a server may echo it in any of these.
inline const std::array<std::string, 4> SPELLINGS{
    KEY, "sk-Fa\\/ult+Key=12345", "sk-Fa%2Fult%2BKey%3D12345", "c2stRmEvdWx0K0tleT0xMjM0NQ=="};
inline const std::string ECHO =
    SPELLINGS[0] + " " + SPELLINGS[1] + " " + SPELLINGS[2] + " " + SPELLINGS[3];

/// An event stream up to its first chunk, and a JSON reply up to its length.
inline const std::string STREAM =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n"
    "Transfer-Encoding: chunked\r\n\r\n";
inline const std::string JSON =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n";

/// The length of a body, and of a chunk, that never end.
inline const std::string ENDLESS = "Content-Length: 99999999999999\r\n\r\n";
inline const std::string ENDLESS_CHUNK = "fffffffffff\r\n";

/// A complete chunk.
[[nodiscard]] std::string chunk(const std::string& bytes);

/// What a server can do at any moment. It may go on with `filler`, again and again, as long as the
/// peer takes it: a byte at a time, or as fast as it can.
void stay_silent(loopback::Exchange& exchange, const std::string& filler = {});
void reset(loopback::Exchange& exchange, const std::string& filler = {});
void close(loopback::Exchange& exchange, const std::string& filler = {});
void trickle(loopback::Exchange& exchange, const std::string& filler);
void flood(loopback::Exchange& exchange, const std::string& filler);

/// What ends a call from outside.
enum class Bound { none, stop, deadline };

/// A server and a call to it.
struct Call {
  std::string name;
  std::string ends;  ///< What is expected of it; for the test alone.
  loopback::Server::Handler serve = [](loopback::Exchange& exchange) { exchange.close(); };
  loopback::Options options{};
  std::string url{};      ///< Where the call goes instead of to the server.
  std::string scheme{};   ///< How the server is spoken to instead of as it wants.
  bool copilot = false;   ///< The server stands for both of Copilot's endpoints.
  bool trusted = true;    ///< The server's certificate.
  bool reached = true;    ///< Whether tries become requests; for the test alone.
  double timeout_s = 30;  ///< The client's.
  std::size_t size = 10;  ///< Bytes of the message.
  Bound bound = Bound::none;
  std::chrono::milliseconds until{60};  ///< From the call to its bound.
  http::Wait wait = [](double, auto&, auto) {};
};

struct Outcome {
  std::string told;  ///< The answer, or the error's text and those nested in it.
  std::string end;   ///< "answer", "error", "stopped" or "late".
  int requests;      ///< That reached the server.
  double seconds;    ///< That it lasted, from its bound on if it had one.
  bool shows_key;    ///< Whether more of the key than its first characters is in the text.
};

/// Makes a call with one try after the first.
[[nodiscard]] Outcome make(const Call& call);

/// Whether the text shows the key in any spelling.
[[nodiscard]] bool shows_key(std::string_view text);

/// How many descriptors this process has open.
[[nodiscard]] std::ptrdiff_t descriptors();

/// A transport that trusts a server's certificate, if it has one.
[[nodiscard]] std::shared_ptr<http::Transport> trusting(const loopback::Server& server);

/// From now on no transport made without another choice reads the system's authorities, which takes
/// longer than a bound may last.
void forget_authorities();

}  // namespace faults
