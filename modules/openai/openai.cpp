// A binding of the OpenAI client library's face to this project's own HTTP engine: the library that
// is there when no other is. Loaded at run time; knows nothing of the client that loads it.
#include "tovren_mapstead/openai.hpp"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/send.hpp"

namespace {

namespace http = tovren_mapstead::engines::http;
namespace openai = tovren_mapstead::openai;
using http::JsonValue;
using Json = nlohmann::ordered_json;

bool given(const JsonValue& value) {
  return value.kind() != JsonValue::Kind::absent && value.kind() != JsonValue::Kind::null;
}

openai::Scalar to_scalar(const JsonValue& value) {
  switch (value.kind()) {
    case JsonValue::Kind::absent:
    case JsonValue::Kind::null:
      return {};
    case JsonValue::Kind::boolean:
      return value.boolean();
    case JsonValue::Kind::integer:
      if (const auto integer = value.integer()) return *integer;
      return value.real();
    case JsonValue::Kind::real:
      return value.real();
    case JsonValue::Kind::string:
    case JsonValue::Kind::array:
    case JsonValue::Kind::object:
      break;
  }
  std::string text;
  value.append_text(text);
  return text;
}

std::optional<openai::Usage> to_usage(const JsonValue& usage) {
  if (usage.kind() != JsonValue::Kind::object) return std::nullopt;
  return openai::Usage{.prompt_tokens = to_scalar(usage["prompt_tokens"]),
                       .completion_tokens = to_scalar(usage["completion_tokens"])};
}

std::optional<openai::Message> to_message(const JsonValue& message) {
  if (message.kind() != JsonValue::Kind::object) return std::nullopt;
  return openai::Message{.content = to_scalar(message["content"])};
}

openai::Completion to_completion(const JsonValue& reply) {
  if (reply.kind() != JsonValue::Kind::object) {
    throw openai::OpenAIError("the reply is not a JSON object");
  }
  openai::Completion completion{.model = to_scalar(reply["model"]),
                                .choices = std::nullopt,
                                .usage = to_usage(reply["usage"]),
                                .text = reply.text()};
  if (!given(reply["choices"])) return completion;
  completion.choices.emplace();
  for (const JsonValue& choice : reply["choices"].elements()) {
    openai::Choice& added = completion.choices->emplace_back();
    added.message = to_message(choice["message"]);
    added.finish_reason = to_scalar(choice["finish_reason"]);
    // A text is whole, so a character in it that is half is one that stays half.
    if (!added.message) continue;
    if (auto* const text = std::get_if<std::string>(&added.message->content))
      http::join_halves(*text);
  }
  return completion;
}

openai::Chunk to_chunk(const JsonValue& event) {
  openai::Chunk chunk{.model = to_scalar(event["model"]),
                      .choices = std::nullopt,
                      .usage = to_usage(event["usage"]),
                      .text = {}};
  if (!given(event["choices"])) return chunk;
  chunk.choices.emplace();
  for (const JsonValue& choice : event["choices"].elements()) {
    chunk.choices->push_back({.delta = to_message(choice["delta"]),
                              .finish_reason = to_scalar(choice["finish_reason"])});
  }
  return chunk;
}

// A whole reply to a request for a stream, as the one chunk of a stream.
openai::Chunk to_chunk(openai::Completion completion) {
  if (!completion.choices || completion.choices->empty()) {
    throw openai::OpenAIError("the reply has no choices: " + completion.text);
  }
  openai::Choice& first = completion.choices->front();
  return {.model = std::move(completion.model),
          .choices = std::vector{openai::ChunkChoice{.delta = std::move(first.message),
                                                     .finish_reason = first.finish_reason}},
          .usage = completion.usage,
          .text = {}};
}

// The engine's errors in the terms of this interface.
template <class Step>
std::invoke_result_t<Step> translated(Step step) {
  try {
    return step();
  } catch (const http::TimedOut& error) {
    throw openai::APITimeoutError(error.what());
  } catch (const http::Retryable& error) {
    throw openai::APIConnectionError(error.what());
  } catch (const http::HttpFailure& failure) {
    if (const auto status = failure.status(); status && *status >= 300) {
      throw openai::APIStatusError(failure.what(), *status);
    }
    throw openai::OpenAIError(failure.what());
  }
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view BLANKS = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(BLANKS);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(BLANKS) + 1 - begin);
}

class EventStream final : public openai::ChunkStream {
 public:
  explicit EventStream(http::Response reply) : _reply(std::move(reply)) {}

  std::optional<openai::Chunk> next() override {
    return translated([&] { return next_chunk(); });
  }

 private:
  std::optional<openai::Chunk> next_chunk() {
    constexpr std::string_view PREFIX = "data:";
    while (const auto raw = _ended ? std::nullopt : _reply.next_line()) {
      if (!http::is_utf8(*raw)) throw openai::OpenAIError("the stream is not valid UTF-8");
      const std::string_view line = trimmed(*raw);
      if (!line.starts_with(PREFIX)) continue;
      const std::string_view payload = trimmed(line.substr(PREFIX.size()));
      if (payload == "[DONE]") break;
      const auto event = _reader.parse(payload);
      if (!event || event->kind() != JsonValue::Kind::object) continue;
      if (const JsonValue error = (*event)["error"]; !error.empty()) {
        const JsonValue message = error["message"];
        _error = message.empty() ? error.text() : message.text();
        continue;
      }
      _finished = _finished || !(*event)["choices"].front()["finish_reason"].empty();
      return to_chunk(*event);
    }
    _ended = true;
    // A provider that has told its finish reason has given its answer, whatever it reports besides.
    if (_error && !_finished) throw openai::APIConnectionError("stream error: " + *_error);
    return std::nullopt;
  }

  http::Response _reply;
  http::JsonReader _reader;
  std::optional<std::string> _error;
  bool _finished = false;
  bool _ended = false;
};

class WholeStream final : public openai::ChunkStream {
 public:
  explicit WholeStream(openai::Chunk chunk) : _chunk(std::move(chunk)) {}

  std::optional<openai::Chunk> next() override { return std::exchange(_chunk, std::nullopt); }

 private:
  std::optional<openai::Chunk> _chunk;
};

Json to_body(const openai::CreateArguments& arguments) {
  Json messages = Json::array();
  for (const auto& message : arguments.messages) {
    Json& added = messages.emplace_back(Json::object());
    for (const auto& [name, value] : message) added[name] = value;
  }
  Json body = Json::object();
  body["model"] = arguments.model;
  body["messages"] = std::move(messages);
  body["temperature"] = arguments.temperature;
  body["max_tokens"] = arguments.max_tokens;
  if (arguments.stream) body["stream"] = *arguments.stream;
  if (arguments.stream_options) {
    body["stream_options"]["include_usage"] = arguments.stream_options->include_usage;
  }
  if (arguments.response_format) body["response_format"]["type"] = arguments.response_format->type;
  return body;
}

class Client final : public openai::OpenAI {
 public:
  explicit Client(const openai::ClientArguments& arguments)
      : _url(arguments.base_url.substr(0, arguments.base_url.find_last_not_of('/') + 1) +
             "/chat/completions"),
        _secrets{arguments.api_key},
        _policy{.timeout_s = arguments.timeout} {}

  // One try, whatever `max_retries` says: whoever loads this has a retry loop of its own.
  std::variant<openai::Completion, std::unique_ptr<openai::ChunkStream>> create_chat_completion(
      const openai::CreateArguments& arguments) override {
    const bool stream = arguments.stream.value_or(false);
    http::Headers headers{{"Authorization", "Bearer " + _secrets.front()}};
    if (stream) headers["Accept"] = "text/event-stream";
    return translated([&] {
      http::Response reply = http::send(_url,
                                        {.policy = _policy,
                                         .timeout_s = _policy.timeout_s,
                                         .body = to_body(arguments),
                                         .headers = headers,
                                         .secrets = _secrets},
                                        [](http::Response& open) { return std::move(open); });
      return stream ? Reply(to_stream(std::move(reply))) : Reply(read_completion(reply));
    });
  }

 private:
  using Reply = std::variant<openai::Completion, std::unique_ptr<openai::ChunkStream>>;

  openai::Completion read_completion(http::Response& reply) const {
    return to_completion(http::read_json(reply, _policy, _secrets).root());
  }

  std::unique_ptr<openai::ChunkStream> to_stream(http::Response reply) const {
    if (http::content_type(reply).find("event-stream") == std::string::npos) {
      return std::make_unique<WholeStream>(to_chunk(read_completion(reply)));
    }
    return std::make_unique<EventStream>(std::move(reply));
  }

  const std::string _url;
  const http::Secrets _secrets;  // the key
  const http::RetryPolicy _policy;
};

}  // namespace

extern "C" [[gnu::visibility("default")]] const openai::Library* tovren_openai_library();

const openai::Library* tovren_openai_library() {
  static constexpr openai::Library LIBRARY{
      .interface_version = openai::INTERFACE_VERSION,
      .open = [](const openai::ClientArguments& arguments) -> std::unique_ptr<openai::OpenAI> {
        return std::make_unique<Client>(arguments);
      }};
  return &LIBRARY;
}
