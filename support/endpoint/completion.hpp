// Chat completions in the form of an OpenAI-compatible endpoint, for servers on loopback.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "loopback/server.hpp"

namespace endpoint {

using Json = nlohmann::ordered_json;

/// The first `bytes` bytes of `text`, UTF-8, and those that complete the last character.
[[nodiscard]] std::string_view start_of(std::string_view text, std::size_t bytes);

constexpr std::size_t BYTES_PER_TOKEN = 4;  ///< By which tokens are counted here.

/// What a model is made to say.
struct Answer {
  std::string text;  ///< UTF-8.
  std::string finish_reason = "stop";
};

/// Replies to `asked`, the body of a request, with `answer`: whole, or where a stream is asked for
/// in pieces of some bytes with a `pause` before each.
/// Throws nlohmann's exceptions, before anything is sent, when `asked` is no such body.
void reply(loopback::Exchange& exchange, const Json& asked, const Answer& answer,
           std::chrono::milliseconds pause = {});

}  // namespace endpoint
