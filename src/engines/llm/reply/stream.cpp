#include "engines/llm/reply/stream.hpp"

#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/events.hpp"
#include "tovren_mapstead/engines/http/utf8.hpp"
#include "tovren_mapstead/engines/llm/errors.hpp"

#include "engines/http/clock.hpp"
#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/repeated_event.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "json/json_members.hpp"
#include "openai/protocol.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using http::JsonValue;

// The end of a stream is not known in advance, so its content is limited like a whole body.
constexpr std::size_t MAX_CONTENT_BYTES = std::size_t{64} << 20U;

// A member of a chunk, with the interface of a member of an event.
class ChunkMember {
 public:
  explicit ChunkMember(const openai::Scalar* value) : _value(value) {}

  [[nodiscard]] bool empty() const { return _value == nullptr || openai::is_empty(*_value); }

  void append_text(std::string& out) const { out += openai::text_of(*_value); }

  void assign_text(std::string& out) const { out = openai::text_of(*_value); }

 private:
  const openai::Scalar* _value;
};

// What has come of a stream so far.
class Accumulator {
 public:
  explicit Accumulator(std::string model) : _model(std::move(model)) {}

  template <class Member>
  void add(const Member& model, const Member& content, const Member& finish_reason) {
    if (!model.empty()) model.assign_text(_model);
    if (!content.empty()) {
      content.append_text(_parts);
      check_size();
    }
    if (!finish_reason.empty()) finish_reason.assign_text(_finish_reason.emplace());
  }

  // Adds an event if it differs from the last one in its text only.
  bool add_repeated(std::string_view payload, RepeatedEvent& last) {
    if (!last.append_text(payload, _parts)) return false;
    check_size();
    return true;
  }

  template <class Member>
  void add_usage(const Member& prompt_tokens, const Member& completion_tokens) {
    _prompt_tokens = _as_int(prompt_tokens, _prompt_tokens);
    _completion_tokens = _as_int(completion_tokens, _completion_tokens);
  }

  void add_error(std::string message) { _error_msg = std::move(message); }

  LLMResult finish() && {
    return _build_stream_result(std::move(_parts), std::move(_model), std::move(_finish_reason),
                                _prompt_tokens, _completion_tokens, _error_msg);
  }

 private:
  void check_size() const {
    if (_parts.size() > MAX_CONTENT_BYTES) {
      throw LLMError("LLM answer is longer than 64 MiB; ask for fewer tokens");
    }
  }

  std::string _parts;
  std::optional<std::string> _finish_reason;
  std::optional<std::string> _error_msg;
  std::string _model;
  std::int64_t _prompt_tokens = 0;
  std::int64_t _completion_tokens = 0;
};

// The members of an event that count. Those that are missing are absent.
struct Members {
  explicit Members(const JsonValue& event) {
    JsonValue choices;
    http::for_each_member(event, [&](std::string_view name, const auto& value) {
      if (name == "choices") choices = value();
      if (name == "model") model = value();
      if (name == "usage") usage = value();
      if (name == "error") error = value();
    });
    JsonValue delta;
    http::for_each_member(choices.front(), [&](std::string_view name, const auto& value) {
      if (name == "delta") delta = value();
      if (name == "finish_reason") finish_reason = value();
    });
    http::for_each_member(delta, [&](std::string_view name, const auto& value) {
      if (name == "content") content = value();
    });
  }

  JsonValue model;
  JsonValue usage;
  JsonValue error;
  JsonValue finish_reason;  // this and the next of the first choice
  JsonValue content;
};

// Returns whether the event counts as a part of the answer.
bool add_event(const Members& event, const http::Secrets& secrets, Accumulator& answer) {
  if (auto message = _stream_error_message(event.error)) {
    answer.add_error(http::redact(*message, secrets));
    return false;
  }
  answer.add(event.model, event.content, event.finish_reason);
  if (event.usage.kind() == JsonValue::Kind::object) {
    answer.add_usage(event.usage["prompt_tokens"], event.usage["completion_tokens"]);
  }
  return true;
}

void add_chunk(const openai::Chunk& chunk, Accumulator& answer) {
  const bool has_choice = chunk.choices && !chunk.choices->empty();
  const openai::ChunkChoice* const first = has_choice ? &chunk.choices->front() : nullptr;
  answer.add(ChunkMember(&chunk.model),
             ChunkMember(first != nullptr && first->delta ? &first->delta->content : nullptr),
             ChunkMember(first != nullptr ? &first->finish_reason : nullptr));
  if (chunk.usage) answer.add_usage(chunk.usage->prompt_tokens, chunk.usage->completion_tokens);
}

}  // namespace

LLMResult _parse_sse_stream(http::Response& response, const std::string& fallback_model,
                            double timeout_s) {
  response.limit_lines(timeout_s);
  Accumulator answer(fallback_model);
  http::EventReader events(response);
  RepeatedEvent last([](const JsonValue& event) { return Members(event).content; });
  while (const std::optional<std::string_view> payload = events.next_payload()) {
    if (answer.add_repeated(*payload, last)) continue;
    const JsonValue event = events.parse(*payload);
    if (!event.present()) continue;
    const Members members(event);
    if (add_event(members, response.secrets(), answer)) {
      last.learn(*payload, members.content, response.reader());
    }
  }
  return std::move(answer).finish();
}

LLMResult _accumulate_sdk_stream(openai::ChunkStream& stream, const std::string& fallback_model,
                                 double timeout_s) {
  const auto end = http::time_limit(timeout_s);
  Accumulator answer(fallback_model);
  while (const std::optional<openai::Chunk> chunk = stream.next()) {
    if (http::has_passed(end)) {
      throw http::Retryable("stream exceeded timeout before completing");
    }
    add_chunk(*chunk, answer);
  }
  return std::move(answer).finish();
}

std::optional<std::string> _stream_error_message(const JsonValue& error) {
  if (error.empty()) return std::nullopt;
  const JsonValue message = error["message"];
  return message.empty() ? error.text() : message.text();
}

LLMResult _build_stream_result(std::string parts, std::string model,
                               std::optional<std::string> finish_reason, std::int64_t prompt_tokens,
                               std::int64_t completion_tokens,
                               const std::optional<std::string>& error_msg) {
  http::join_halves(parts);
  std::string content = _strip_reasoning(std::move(parts));
  if (!finish_reason) {
    if (error_msg && !error_msg->empty()) throw http::Retryable("stream error: " + *error_msg);
    if (content.empty()) throw http::Retryable("empty stream (no content received)");
  }
  return LLMResult({.content = std::move(content),
                    .model = std::move(model),
                    .prompt_tokens = prompt_tokens,
                    .completion_tokens = completion_tokens,
                    .finish_reason = std::move(finish_reason)});
}

}  // namespace tovren_mapstead::engines::llm
