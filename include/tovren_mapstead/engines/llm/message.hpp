// What is said to a model.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::engines::llm {

/// One message: `{.role = "user", .content = text}`, or `user(text)`. Further members are sent
/// after these, in their order.
using Message = openai::RequestMessage;

/// The messages of a call, the oldest first.
using Messages = std::vector<Message>;

/// Returns a message that instructs the model.
[[nodiscard]] inline Message system(std::string content) {
  return {.role = "system", .content = std::move(content)};
}

/// Returns a message from the user.
[[nodiscard]] inline Message user(std::string content) {
  return {.role = "user", .content = std::move(content)};
}

/// Returns an earlier answer of the model.
[[nodiscard]] inline Message assistant(std::string content) {
  return {.role = "assistant", .content = std::move(content)};
}

}  // namespace tovren_mapstead::engines::llm
