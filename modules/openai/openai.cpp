// A binding of the OpenAI client library's face to this project's own HTTP engine: the library that
// is there when no other is. Loaded at run time; knows nothing of the client that loads it.
#include "tovren_mapstead/openai.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/send.hpp"

namespace {

namespace http = tovren_mapstead::engines::http;
namespace openai = tovren_mapstead::openai;
using http::JsonValue;
using Json = nlohmann::ordered_json;

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
    case JsonValue::Kind::array:
    case JsonValue::Kind::object:
      if (value.empty()) return {};
      break;
    case JsonValue::Kind::string:
      break;
  }
  return value.text();
}

// A piece of a text: half a character in it may find its other half in the next.
openai::Scalar to_piece(const JsonValue& value) {
  if (value.kind() != JsonValue::Kind::string) return to_scalar(value);
  std::string piece;
  value.append_text(piece);
  return piece;
}

std::optional<openai::Usage> to_usage(const JsonValue& usage) {
  if (usage.kind() != JsonValue::Kind::object) return std::nullopt;
  return openai::Usage{.prompt_tokens = to_scalar(usage["prompt_tokens"]),
                       .completion_tokens = to_scalar(usage["completion_tokens"])};
}

// Makes one of the reply's choices: nobody asks for more than one, and a hostile reply may hold
// millions.
template <class Choice, class Convert>
std::optional<std::vector<Choice>> to_choices(const JsonValue& choices, Convert convert) {
  if (choices.kind() == JsonValue::Kind::absent || choices.kind() == JsonValue::Kind::null) {
    return std::nullopt;
  }
  std::vector<Choice> converted;
  if (const JsonValue first = choices.front(); first.kind() != JsonValue::Kind::absent) {
    converted.push_back(convert(first));
  }
  return converted;
}

bool is_object(const JsonValue& value) {
  return value.kind() == JsonValue::Kind::object;
}

openai::Completion to_completion(const JsonValue& reply, const http::Secrets& secrets) {
  if (reply.kind() != JsonValue::Kind::object) {
    throw openai::OpenAIError("the reply is not a JSON object");
  }
  const auto to_choice = [](const JsonValue& choice) {
    openai::Choice converted{.message = std::nullopt,
                             .finish_reason = to_scalar(choice["finish_reason"])};
    if (const JsonValue message = choice["message"]; is_object(message)) {
      converted.message = openai::Message{.content = to_scalar(message["content"])};
    }
    return converted;
  };
  return {.model = to_scalar(reply["model"]),
          .choices = to_choices<openai::Choice>(reply["choices"], to_choice),
          .usage = to_usage(reply["usage"]),
          .text = http::redact(reply.text(), secrets)};
}

openai::Chunk to_chunk(const JsonValue& event) {
  const auto to_choice = [](const JsonValue& choice) {
    openai::ChunkChoice converted{.delta = std::nullopt,
                                  .finish_reason = to_scalar(choice["finish_reason"])};
    if (const JsonValue delta = choice["delta"]; is_object(delta)) {
      converted.delta = openai::Message{.content = to_piece(delta["content"])};
    }
    return converted;
  };
  return {.model = to_scalar(event["model"]),
          .choices = to_choices<openai::ChunkChoice>(event["choices"], to_choice),
          .usage = to_usage(event["usage"]),
          .text = {}};
}

// A whole reply to a request for a stream, as the one chunk of a stream.
openai::Chunk to_chunk(openai::Completion completion) {
  if (!completion.choices || completion.choices->empty()) {
    throw openai::OpenAIError(
        http::detail::without_nul("the reply has no choices: " + completion.text));
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
      throw openai::APIStatusError(failure.what(), status);
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

// What one request is bounded by. A reply borrows it for its life.
struct Bounds {
  explicit Bounds(const openai::ClientArguments& arguments)
      : secrets{arguments.api_key}, timeout_s(arguments.timeout) {}

  Bounds(const Bounds&) = delete;  // the policy points here
  Bounds& operator=(const Bounds&) = delete;

  // From now, a step may take the time limit as a whole: the engine's own bounds each silence, and
  // a server that sends a comment now and then is never silent.
  void begin_step() { began = http::Clock::now(); }

  [[nodiscard]] bool check_time() const {
    const std::chrono::duration<double> taken = http::Clock::now() - began;
    if (timeout_s > 0 && taken.count() > timeout_s) {
      throw openai::APITimeoutError("no reply within the time limit");
    }
    return false;  // nobody asks to stop
  }

  const http::Secrets secrets;  // the key
  const double timeout_s;
  const http::RetryPolicy policy{.timeout_s = timeout_s,
                                 .should_stop = [this] { return check_time(); }};
  http::Clock::time_point began = http::Clock::now();
};

class EventStream final : public openai::ChunkStream {
 public:
  EventStream(std::unique_ptr<Bounds> bounds, http::Response reply)
      : _bounds(std::move(bounds)), _reply(std::move(reply)) {}

  std::optional<openai::Chunk> next() override {
    _bounds->begin_step();
    return translated([&] { return next_chunk(); });
  }

 private:
  std::optional<openai::Chunk> next_chunk() {
    constexpr std::string_view PREFIX = "data:";
    while (const auto raw = _ended ? std::nullopt : _reply.next_line()) {
      if (!http::is_utf8(*raw)) throw openai::OpenAIError("the stream is not valid UTF-8");
      std::ignore = _bounds->check_time();  // lines that came together are read without a wait
      const std::string_view line = trimmed(*raw);
      if (!line.starts_with(PREFIX)) continue;
      const std::string_view payload = trimmed(line.substr(PREFIX.size()));
      if (payload == "[DONE]") break;
      const JsonValue event = _reply.reader().parse_padded(payload);
      if (event.kind() != JsonValue::Kind::object) continue;
      if (const JsonValue error = event["error"]; !error.empty()) {
        const JsonValue message = error["message"];
        _error = http::redact((message.empty() ? error : message).text(), _reply.secrets());
        continue;
      }
      _finished = _finished || !event["choices"].front()["finish_reason"].empty();
      return to_chunk(event);
    }
    _ended = true;
    // A provider that has told its finish reason has given its answer, whatever it reports besides.
    if (_error && !_finished) {
      throw openai::APIConnectionError(http::detail::without_nul("stream error: " + *_error));
    }
    return std::nullopt;
  }

  std::unique_ptr<Bounds> _bounds;
  http::Response _reply;
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
        _arguments(arguments) {}

  // One try, whatever `max_retries` says: whoever loads this has a retry loop of its own.
  std::variant<openai::Completion, std::unique_ptr<openai::ChunkStream>> create_chat_completion(
      const openai::CreateArguments& arguments) override {
    const bool stream = arguments.stream.value_or(false);
    http::Headers headers{{"Authorization", "Bearer " + _arguments.api_key}};
    if (stream) headers["Accept"] = "text/event-stream";
    auto bounds = std::make_unique<Bounds>(_arguments);
    return translated([&]() -> Reply {
      http::Response reply = http::send(_url,
                                        {.policy = bounds->policy,
                                         .timeout_s = bounds->timeout_s,
                                         .body = to_body(arguments),
                                         .headers = headers,
                                         .secrets = bounds->secrets},
                                        [](http::Response& open) { return std::move(open); });
      if (stream && http::content_type(reply).find("event-stream") != std::string::npos) {
        return std::make_unique<EventStream>(std::move(bounds), std::move(reply));
      }
      openai::Completion completion =
          to_completion(http::read_json(reply, bounds->policy, reply.secrets()), reply.secrets());
      if (!stream) return completion;
      return std::make_unique<WholeStream>(to_chunk(std::move(completion)));
    });
  }

 private:
  using Reply = std::variant<openai::Completion, std::unique_ptr<openai::ChunkStream>>;

  const std::string _url;
  const openai::ClientArguments _arguments;
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
