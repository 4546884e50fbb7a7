// Implements the interface of the OpenAI client library with this project's HTTP engine, for users
// without another library. Loaded at run time. Does not know the client that loads it.
#include "tovren_mapstead/openai.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/events.hpp"
#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/send.hpp"

#include "openai/protocol.hpp"

namespace {

namespace http = tovren_mapstead::engines::http;
namespace openai = tovren_mapstead::openai;
using http::JsonValue;

bool is_object(const JsonValue& value) {
  return value.kind() == JsonValue::Kind::object;
}

// Returns a piece of a text. Keeps half of a surrogate pair, because the next piece may hold the
// other half.
openai::Scalar to_piece(const JsonValue& value) {
  if (value.kind() != JsonValue::Kind::string) return openai::to_scalar(value);
  std::string piece;
  value.append_text(piece);
  return piece;
}

std::optional<openai::Usage> to_usage(const JsonValue& usage) {
  if (!is_object(usage)) return std::nullopt;
  return openai::Usage{.prompt_tokens = openai::to_scalar(usage["prompt_tokens"]),
                       .completion_tokens = openai::to_scalar(usage["completion_tokens"])};
}

// Returns at most the first choice. No request asks for more, and a hostile reply may hold
// millions.
template <class Choice, class Convert>
std::optional<std::vector<Choice>> to_choices(const JsonValue& choices, Convert convert) {
  if (!choices.present() || choices.kind() == JsonValue::Kind::null) return std::nullopt;
  std::vector<Choice> converted;
  if (const JsonValue first = choices.front(); first.present()) converted.push_back(convert(first));
  return converted;
}

openai::Completion to_completion(const JsonValue& reply, const http::Secrets& secrets) {
  if (!is_object(reply)) throw openai::OpenAIError("the reply is not a JSON object");
  const auto to_choice = [](const JsonValue& choice) {
    openai::Choice converted{.message = std::nullopt,
                             .finish_reason = openai::to_scalar(choice["finish_reason"])};
    if (const JsonValue message = choice["message"]; is_object(message)) {
      converted.message = openai::Message{.content = openai::to_scalar(message["content"])};
    }
    return converted;
  };
  return {.model = openai::to_scalar(reply["model"]),
          .choices = to_choices<openai::Choice>(reply["choices"], to_choice),
          .usage = to_usage(reply["usage"]),
          .text = http::redact(reply.text(), secrets)};
}

openai::Chunk to_chunk(const JsonValue& event) {
  const auto to_choice = [](const JsonValue& choice) {
    openai::ChunkChoice converted{.delta = std::nullopt,
                                  .finish_reason = openai::to_scalar(choice["finish_reason"])};
    if (const JsonValue delta = choice["delta"]; is_object(delta)) {
      converted.delta = openai::Message{.content = to_piece(delta["content"])};
    }
    return converted;
  };
  return {.model = openai::to_scalar(event["model"]),
          .choices = to_choices<openai::ChunkChoice>(event["choices"], to_choice),
          .usage = to_usage(event["usage"]),
          .text = {}};
}

// Converts a whole reply to a stream request into the only chunk of a stream.
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

// Translates the engine's errors to those of this interface.
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

// The bounds of one request. Must outlive its reply.
struct Bounds {
  explicit Bounds(const openai::ClientArguments& arguments)
      : secrets{arguments.api_key}, timeout_s(arguments.timeout) {}

  Bounds(const Bounds&) = delete;  // the policy points here
  Bounds& operator=(const Bounds&) = delete;

  // The engine's timeout limits silence only, and a server may send comments meanwhile. This limits
  // the whole step.
  void begin_step() { began = http::Clock::now(); }

  [[nodiscard]] bool check_time() const {
    const std::chrono::duration<double> taken = http::Clock::now() - began;
    if (timeout_s > 0 && taken.count() > timeout_s) {
      throw openai::APITimeoutError("no reply within the time limit");
    }
    return false;
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
      : _bounds(std::move(bounds)), _reply(std::move(reply)), _events(_reply) {}

  std::optional<openai::Chunk> next() override {
    _bounds->begin_step();
    return translated([&] { return next_chunk(); });
  }

 private:
  std::optional<openai::Chunk> next_chunk() {
    while (!_ended) {
      const JsonValue event = _events.next();
      if (!event.present()) break;
      if (const JsonValue error = event["error"]; !error.empty()) {
        const JsonValue message = error["message"];
        _error = http::redact((message.empty() ? error : message).text(), _reply.secrets());
        continue;
      }
      _finished = _finished || !event["choices"].front()["finish_reason"].empty();
      return to_chunk(event);
    }
    _ended = true;
    // With a finish reason the answer is complete, so an error is ignored.
    if (_error && !_finished) {
      throw openai::APIConnectionError(http::detail::without_nul("stream error: " + *_error));
    }
    return std::nullopt;
  }

  std::unique_ptr<Bounds> _bounds;
  http::Response _reply;
  http::EventReader _events;
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

class Client final : public openai::OpenAI {
 public:
  explicit Client(const openai::ClientArguments& arguments)
      : _url(openai::chat_url(arguments.base_url)), _arguments(arguments) {}

  // Makes one attempt and ignores `max_retries`: the client that loads this retries itself.
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
                                         .body = openai::to_json(arguments),
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
