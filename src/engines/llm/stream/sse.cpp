#include "engines/llm/stream/sse.hpp"

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/llm/errors.hpp"

#include "engines/http/json_members.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "engines/llm/reply/white_space.hpp"
#include "engines/llm/stream/result.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using http::JsonValue;

void require_utf8(std::string_view line) {
  if (!line.empty() && !http::is_utf8(line))
    throw LLMError("LLM stream is not valid UTF-8; ask again, without streaming if it stays so");
}

// What has come of a stream so far.
class Accumulator {
 public:
  Accumulator(std::string model, const http::Secrets& secrets)
      : _model(std::move(model)), _secrets(secrets) {}

  void add(const JsonValue& chunk) {
    JsonValue error;
    JsonValue model;
    JsonValue choices;
    JsonValue usage;
    http::for_each_member(chunk, [&](std::string_view name, const auto& value) {
      if (name == "choices") choices = value();
      if (name == "model") model = value();
      if (name == "usage") usage = value();
      if (name == "error") error = value();
    });
    if (const auto message = _stream_error_message(error)) {
      _error_msg = http::redact(*message, _secrets);
      return;
    }
    if (!model.empty()) model.assign_text(_model);
    JsonValue delta;  // stays absent, like the next, unless the choice is an object
    JsonValue finish_reason;
    http::for_each_member(choices.front(), [&](std::string_view name, const auto& value) {
      if (name == "delta") delta = value();
      if (name == "finish_reason") finish_reason = value();
    });
    JsonValue piece;
    http::for_each_member(delta, [&](std::string_view name, const auto& value) {
      if (name == "content") piece = value();
    });
    if (!piece.empty()) {
      piece.append_text(_parts);
      check_length(_parts);
    }
    if (!finish_reason.empty()) finish_reason.assign_text(_finish_reason.emplace());
    if (usage.kind() == JsonValue::Kind::object) {
      _prompt_tokens = _as_int(usage["prompt_tokens"], _prompt_tokens);
      _completion_tokens = _as_int(usage["completion_tokens"], _completion_tokens);
    }
  }

  LLMResult finish() && {
    return _build_stream_result(std::move(_parts), std::move(_model), std::move(_finish_reason),
                                _prompt_tokens, _completion_tokens, _error_msg);
  }

 private:
  std::string _parts;
  std::optional<std::string> _finish_reason;
  std::optional<std::string> _error_msg;
  std::string _model;
  std::int64_t _prompt_tokens = 0;
  std::int64_t _completion_tokens = 0;
  const http::Secrets& _secrets;
};

}  // namespace

LLMResult _parse_sse_stream(http::Response& response, const std::string& fallback_model,
                            double timeout_s) {
  constexpr std::string_view PREFIX = "data:";
  response.limit_lines(timeout_s);
  Accumulator stream(fallback_model, response.secrets());
  http::JsonReader& reader = response.reader();
  for (const std::string_view raw : response) {
    const std::string_view line = trim(raw);
    if (!line.starts_with(PREFIX)) {
      require_utf8(raw);
      continue;
    }
    std::string_view payload = line.substr(PREFIX.size());
    if (payload.starts_with(' ')) payload.remove_prefix(1);  // as mostly; `trim` does it at a cost
    payload = trim(payload);
    if (payload == "[DONE]") break;
    const JsonValue chunk = reader.parse_padded(payload);
    if (chunk.kind() == JsonValue::Kind::object) {
      stream.add(chunk);
    } else if (!chunk.present()) {
      require_utf8(raw);  // what is no JSON is passed over
    }
  }
  return std::move(stream).finish();
}

}  // namespace tovren_mapstead::engines::llm
