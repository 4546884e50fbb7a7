#include "engines/llm/transports/fallback.hpp"

#include <string>

#include "engines/http/text.hpp"
#include "engines/llm/logger.hpp"

namespace tovren_mapstead::engines::llm {

Fallback choose_fallback(std::optional<int> status, std::string_view text, bool response_json,
                         bool stream) {
  if (status != 400) return Fallback::none;
  const std::string lowered = http::lower_case(text);
  if (response_json && lowered.find("response_format") != std::string::npos) {
    warn("provider rejected response_format; retrying without JSON mode");
    return Fallback::without_json_mode;
  }
  if (stream && lowered.find("stream") != std::string::npos) {
    warn("provider rejected streaming; retrying without it");
    return Fallback::without_streaming;
  }
  return Fallback::none;
}

}  // namespace tovren_mapstead::engines::llm
