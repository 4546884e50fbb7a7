// The chat-completions protocol in the terms of the client library's interface: requests as JSON,
// members of replies as scalars. For the client's HTTP transport and for the binding.
#pragma once

#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/json_writer.hpp"
#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::openai {

/// Returns the URL of the chat-completions endpoint below `base_url`, whose trailing slashes do not
/// count.
[[nodiscard]] std::string chat_url(std::string_view base_url);

/// Returns the body of a request.
[[nodiscard]] engines::http::JsonObject to_json(const CreateArguments& arguments);

/// Returns a member of a reply. An empty array or object counts as absent, any other is its JSON
/// text.
[[nodiscard]] Scalar to_scalar(const engines::http::JsonValue& value);

/// Returns true for an absent value, false, zero and an empty string.
[[nodiscard]] bool is_empty(const Scalar& value);

/// Returns a string as it is, any other value as JSON, and an empty text if absent.
[[nodiscard]] std::string text_of(const Scalar& value);

}  // namespace tovren_mapstead::openai
