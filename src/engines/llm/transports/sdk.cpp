// One attempt of a chat call through the OpenAI client library.
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/openai.hpp"

#include "engines/http/process.hpp"
#include "engines/llm/core.hpp"
#include "engines/llm/reply/stream.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "engines/llm/tunables.hpp"
#include "openai/loader.hpp"
#include "openai/protocol.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using Chunks = std::unique_ptr<openai::ChunkStream>;

// What is kept of an error of the library.
struct Failure {
  std::string detail;  // without secrets
  std::optional<int> status;
  bool transient = false;
};

Failure examined(const std::exception& error, const http::Secrets& secrets) {
  const char* const text = error.what();  // null is possible: the library is not ours
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

LLMResult to_result(const openai::Completion& reply, const std::string& fallback_model,
                    const http::Secrets& secrets) {
  if (!reply.choices || reply.choices->empty()) {
    throw LLMError("LLM SDK response missing 'choices': " + http::redact(reply.text, secrets));
  }
  const openai::Choice& choice = reply.choices->front();
  if (!choice.message) throw std::runtime_error("the first choice of the reply has no message");
  const openai::Usage usage = reply.usage.value_or(openai::Usage{});
  const bool finished = !std::holds_alternative<std::monostate>(choice.finish_reason);
  return LLMResult(
      {.content = openai::is_empty(choice.message->content)
                      ? ""
                      : openai::text_of(choice.message->content),
       .model = openai::is_empty(reply.model) ? fallback_model : openai::text_of(reply.model),
       .prompt_tokens = _as_int(usage.prompt_tokens),
       .completion_tokens = _as_int(usage.completion_tokens),
       .finish_reason =
           finished ? std::optional(openai::text_of(choice.finish_reason)) : std::nullopt});
}

LLMResult result_of(openai::OpenAI& client, const openai::CreateArguments& arguments,
                    const LLMConfig& config, double timeout_s, const http::Secrets& secrets) {
  const auto reply = client.create_chat_completion(arguments);
  const bool stream = arguments.stream.value_or(false);
  if (const auto* const chunks = std::get_if<Chunks>(&reply);
      stream && chunks != nullptr && *chunks) {
    return _accumulate_sdk_stream(**chunks, config.model(), timeout_s);
  }
  if (const auto* const whole = std::get_if<openai::Completion>(&reply);
      !stream && whole != nullptr) {
    return to_result(*whole, config.model(), secrets);
  }
  throw std::runtime_error("the OpenAI client library gave another kind of reply than asked for");
}

}  // namespace

LLMResult LLMClient::Core::_chat_via_sdk(const Prompt& prompt, double timeout_s,
                                         std::optional<bool> stream) const {
  const openai::Library& library = loaded_library(_secrets);
  Features features{.response_json = prompt.response_json,
                    .stream = stream.value_or(_config.stream())};
  for (;;) {
    // The library's error ends in here, and its client with it: what is thrown below has neither.
    Failure failure;
    try {
      const std::unique_ptr<openai::OpenAI> client =
          library.open({.base_url = _config.base_url(),
                        .api_key = _config.api_key().value_or(""),
                        .timeout = timeout_s,
                        .max_retries = 0});
      if (!client) throw std::runtime_error("the OpenAI client library made no client");
      return result_of(*client, arguments_of(prompt, _config.model(), features), _config, timeout_s,
                       _secrets);
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
    if (!drop_rejected(features, failure.status, failure.detail)) {
      throw LLMError("LLM SDK call failed: " + failure.detail);
    }
  }
}

}  // namespace tovren_mapstead::engines::llm
