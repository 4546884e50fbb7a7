// What a server can do wrong, and what each fault means for the call that meets it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "loopback/server.hpp"

namespace faults {

/// The key of every call; it holds characters that JSON, URLs and Base64 write in other ways.
inline const std::string KEY = "sk-Fa/ult+Key=12345";

/// The key as it is, in JSON, in a URL and in Base64; a server may echo it in any of these.
inline const std::array<std::string, 4> SPELLINGS{
    KEY, "sk-Fa\\/ult+Key=12345", "sk-Fa%2Fult%2BKey%3D12345", "c2stRmEvdWx0K0tleT0xMjM0NQ=="};
inline const std::string ECHO =
    SPELLINGS[0] + " " + SPELLINGS[1] + " " + SPELLINGS[2] + " " + SPELLINGS[3];

/// Part of URLs, where it stands for a password. No error may show it.
inline const std::string PASSWORD = "hush-hush";

/// An event stream up to its first chunk, and a JSON reply up to its length.
inline const std::string STREAM =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nConnection: close\r\n"
    "Transfer-Encoding: chunked\r\n\r\n";
inline const std::string JSON =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n";

/// The length of a body, and of a chunk, that never end.
inline const std::string ENDLESS = "Content-Length: 99999999999999\r\n\r\n";
inline const std::string ENDLESS_CHUNK = "fffffffffff\r\n";

using loopback::chunk;

/// What a server does after the bytes of a fault.
enum class Act : std::uint8_t {
  keep,     ///< Waits for the next request.
  close,    ///< Closes the connection.
  reset,    ///< Resets it.
  stall,    ///< Sends nothing more.
  trickle,  ///< Sends the filler, a byte every 2 ms.
  flood     ///< Sends the filler as fast as it can.
};

/// What a fault means for an attempt.
enum class Effect : std::uint8_t {
  answer,         ///< It has an answer.
  again,          ///< Another attempt may help.
  failure,        ///< Another attempt would not help: the call fails.
  without_stream  ///< The same request again without streaming; a failure if it was not streamed.
};

/// What ends an attempt, if its caller does not.
enum class End : std::uint8_t {
  soon,      ///< The server.
  timeout,   ///< The client's `timeout_s`.
  patience,  ///< The engine, which waits 5 s for the text of an error.
  never
};

struct Expect {
  Effect effect = Effect::again;
  std::string text{};  ///< Part of the error; all of the answer.
  End end = End::soon;
};

struct Fault {
  std::string name;
  std::string bytes;
  Expect streamed;          ///< If a stream was asked for.
  Expect whole = streamed;  ///< If it was not.
  Act act = Act::close;
  std::string filler{};
};

/// Every fault of a reply, in an order that stays.
[[nodiscard]] const std::vector<Fault>& catalogue();

/// Does what the fault says.
void play(loopback::Exchange& exchange, const Fault& fault);

/// Sends `filler` again and again, a byte every 2 ms, as long as the peer takes it.
void trickle(loopback::Exchange& exchange, const std::string& filler);

}  // namespace faults
