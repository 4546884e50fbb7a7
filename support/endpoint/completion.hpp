// Writes chat completions in the form of an OpenAI-compatible endpoint.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "loopback/server.hpp"

namespace endpoint {

using Json = nlohmann::ordered_json;

/// The first `bytes` bytes of `text`, UTF-8, and those that complete the last character.
[[nodiscard]] std::string_view start_of(std::string_view text, std::size_t bytes);

constexpr std::size_t BYTES_PER_TOKEN = 4;  ///< The rate by which tokens are counted here.

/// What the model answers.
struct Answer {
  std::string text;  ///< UTF-8.
  std::string finish_reason = "stop";
};

/// Replies to `asked`, the body of a request, with `answer`: whole, or, if a stream is asked for,
/// as events with a `pause` before each. A chunk holds `chunk_bytes` of an event at most.
/// Throws nlohmann's exceptions, before anything is sent, when `asked` is no such body.
void reply(loopback::Exchange& exchange, const Json& asked, const Answer& answer,
           std::chrono::milliseconds pause = {}, std::size_t chunk_bytes = SIZE_MAX);

}  // namespace endpoint
