#include "engines/llm/request.hpp"

#include <string>

#include "engines/llm/logger.hpp"
#include "text/characters.hpp"

namespace tovren_mapstead::engines::llm {

openai::CreateArguments arguments_of(const Prompt& prompt, const std::string& model,
                                     const Features& features) {
  openai::CreateArguments arguments{.model = model,
                                    .messages = prompt.messages,
                                    .temperature = prompt.temperature,
                                    .max_tokens = prompt.max_tokens};
  if (features.stream) {
    arguments.stream = true;
    arguments.stream_options = {.include_usage = true};
  }
  if (features.response_json) arguments.response_format = {.type = "json_object"};
  return arguments;
}

bool drop_rejected(Features& features, std::optional<int> status, std::string_view text) {
  if (status != 400) return false;
  const std::string lowered = http::lower_case(text);
  if (features.response_json && lowered.find("response_format") != std::string::npos) {
    warn("provider rejected response_format; retrying without JSON mode");
    features.response_json = false;
    return true;
  }
  if (features.stream && lowered.find("stream") != std::string::npos) {
    warn("provider rejected streaming; retrying without it");
    features.stream = false;
    return true;
  }
  return false;
}

}  // namespace tovren_mapstead::engines::llm
