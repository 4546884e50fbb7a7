// Where chat completions are asked for.
#pragma once

#include <string>
#include <string_view>

namespace tovren_mapstead::engines::llm {

/// `base_url` without its trailing slashes, and the path of the chat-completions endpoint.
[[nodiscard]] inline std::string chat_url(std::string_view base_url) {
  base_url = base_url.substr(0, base_url.find_last_not_of('/') + 1);
  return std::string(base_url) + "/chat/completions";
}

}  // namespace tovren_mapstead::engines::llm
