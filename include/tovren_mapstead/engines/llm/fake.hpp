// Replies and clients for tests of code that calls a model: no network, no waits.
//
//     const auto model = std::make_shared<http::PlaybackTransport>(
//         std::vector{llm::fake::status(429), llm::fake::answer("On Patience")});
//     const llm::LLMClient client = llm::fake::client(model);
//
// If an OpenAI client library is installed, plain providers use that and no transport.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tovren_mapstead/engines/http/playback.hpp"
#include "tovren_mapstead/engines/llm/client.hpp"
#include "tovren_mapstead/export.hpp"

/// Replies and clients for tests.
namespace tovren_mapstead::engines::llm::fake {

/// Returns a whole reply with this answer. A client accepts it for a stream as well.
[[nodiscard]] TOVREN_EXPORT http::PlaybackReply answer(const std::string& content,
                                                       const std::string& finish_reason = "stop");

/// Returns a streamed reply, an event for each piece of the answer.
[[nodiscard]] TOVREN_EXPORT http::PlaybackReply stream(const std::vector<std::string>& pieces,
                                                       const std::string& finish_reason = "stop");

/// Returns a stream that breaks off after these pieces.
[[nodiscard]] TOVREN_EXPORT http::PlaybackReply broken_stream(
    const std::vector<std::string>& pieces);

/// Returns a failure with this status and message.
[[nodiscard]] TOVREN_EXPORT http::PlaybackReply status(int status,
                                                       const std::string& message = "made up");

/// Returns a configured client with made-up settings that sends over `transport` and does not wait
/// between attempts.
[[nodiscard]] TOVREN_EXPORT LLMClient client(std::shared_ptr<http::Transport> transport);

}  // namespace tovren_mapstead::engines::llm::fake
