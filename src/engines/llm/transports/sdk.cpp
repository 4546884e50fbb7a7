// One attempt of a chat call through the OpenAI client library.
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include "tovren_mapstead/engines/http/classify.hpp"
#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/openai.hpp"

#include "engines/http/process.hpp"
#include "engines/llm/client/prompt.hpp"
#include "engines/llm/reply/scalar.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "engines/llm/stream/chunks.hpp"
#include "engines/llm/transports/fallback.hpp"
#include "engines/llm/tunables.hpp"
#include "openai/loader.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using Chunks = std::unique_ptr<openai::ChunkStream>;

// What is left of an error of the library once it has been caught.
struct Failure {
  std::string detail;  // without secrets
  std::optional<int> status;
  bool transient = false;
};

Failure examined(const std::exception& error, const http::Secrets& secrets) {
  const char* const text = error.what();  // a stranger's, so it may be null
  return {.detail = http::redact(text == nullptr ? "" : text, secrets),
          .status = http::status_of(error),
          .transient = http::is_transient(error, SDK_RETRYABLE_STATUS)};
}

const openai::Library& loaded_library(const http::Secrets& secrets) {
  try {
    const http::ForkGuard guard;  // as for the search for it
    return openai::load_library();
  } catch (const openai::LoadError& error) {
    throw LLMError(http::redact(error.what(), secrets));
  }
}

openai::CreateArguments arguments_for(const Messages& messages, const LLMConfig& config,
                                      double temperature, int max_tokens, bool stream,
                                      bool response_json) {
  openai::CreateArguments arguments{.model = config.model,
                                    .messages = messages,
                                    .temperature = temperature,
                                    .max_tokens = max_tokens};
  if (stream) {
    arguments.stream = true;
    arguments.stream_options = openai::CreateArguments::StreamOptions{.include_usage = true};
  }
  if (response_json) {
    arguments.response_format = openai::CreateArguments::ResponseFormat{.type = "json_object"};
  }
  return arguments;
}

LLMResult to_result(const openai::Completion& reply, const std::string& fallback_model,
                    const http::Secrets& secrets) {
  if (!reply.choices || reply.choices->empty()) {
    throw LLMError("LLM SDK response missing 'choices': " + http::redact(reply.text, secrets));
  }
  const openai::Choice& choice = reply.choices->front();
  if (!choice.message) throw std::runtime_error("the first choice of the reply has no message");
  const openai::Usage usage = reply.usage.value_or(openai::Usage{});
  const bool finished = !std::holds_alternative<std::monostate>(choice.finish_reason);
  return {.content = is_empty(choice.message->content) ? "" : text_of(choice.message->content),
          .model = is_empty(reply.model) ? fallback_model : text_of(reply.model),
          .prompt_tokens = _as_int(usage.prompt_tokens),
          .completion_tokens = _as_int(usage.completion_tokens),
          .finish_reason = finished ? std::optional(text_of(choice.finish_reason)) : std::nullopt};
}

}  // namespace

LLMResult LLMClient::_chat_via_sdk(const Prompt& prompt, double timeout_s,
                                   std::optional<bool> stream_choice) const {
  const openai::Library& library = loaded_library(_secrets);
  const bool stream = stream_choice.value_or(_config.stream);
  const openai::CreateArguments arguments =
      arguments_for(prompt.messages, _config, prompt.temperature, prompt.max_tokens, stream,
                    prompt.response_json);
  // The library's error ends in here, and its client with it: what is thrown below carries neither.
  Failure failure;
  try {
    const std::unique_ptr<openai::OpenAI> client =
        library.open({.base_url = _config.base_url,
                      .api_key = _config.api_key.value_or(""),
                      .timeout = timeout_s,
                      .max_retries = 0});
    if (!client) throw std::runtime_error("the OpenAI client library made no client");
    const auto reply = client->create_chat_completion(arguments);
    if (const auto* const chunks = std::get_if<Chunks>(&reply);
        stream && chunks != nullptr && *chunks) {
      return _accumulate_sdk_stream(**chunks, _config.model, timeout_s);
    }
    if (const auto* const whole = std::get_if<openai::Completion>(&reply);
        !stream && whole != nullptr) {
      return to_result(*whole, _config.model, _secrets);
    }
    throw std::runtime_error("the OpenAI client library gave another kind of reply than asked for");
  } catch (const http::Retryable&) {
    throw;
  } catch (const LLMError&) {
    throw;
  } catch (const std::exception& error) {
    failure = examined(error, _secrets);
  } catch (...) {
    failure.detail = "the OpenAI client library raised an error of an unknown kind";
  }
  if (failure.transient) throw http::Retryable(failure.detail, failure.status);
  switch (choose_fallback(failure.status, failure.detail, prompt.response_json, stream)) {
    case Fallback::without_json_mode:
      return _chat_via_sdk(prompt.without_json_mode(), timeout_s, stream);
    case Fallback::without_streaming:
      return _chat_via_sdk(prompt, timeout_s, false);
    case Fallback::none:
      break;
  }
  throw LLMError("LLM SDK call failed: " + failure.detail);
}

}  // namespace tovren_mapstead::engines::llm
