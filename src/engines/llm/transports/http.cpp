// One attempt of a chat call over HTTP.
#include <algorithm>
#include <exception>
#include <iterator>
#include <string>
#include <utility>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/send.hpp"

#include "engines/llm/core.hpp"
#include "engines/llm/reply/completion.hpp"
#include "engines/llm/reply/stream.hpp"
#include "openai/protocol.hpp"

namespace tovren_mapstead::engines::llm {

LLMResult LLMClient::Core::_chat_via_urllib(const Prompt& prompt, double timeout_s,
                                            const http::RetryPolicy& policy) const {
  const HttpTarget target{
      .url = openai::chat_url(_config.base_url()),
      .headers = {{"Authorization", "Bearer " + _config.api_key().value_or("")}}};
  return _chat_http(target, prompt, timeout_s, policy);
}

LLMResult LLMClient::Core::_chat_http(const HttpTarget& target, const Prompt& prompt,
                                      double timeout_s, const http::RetryPolicy& policy,
                                      std::optional<bool> stream) const {
  Features features{.response_json = prompt.response_json,
                    .stream = stream.value_or(_config.stream())};
  http::Secrets secrets = _secrets;
  std::ranges::copy(http::secrets_of(target.headers), std::back_inserter(secrets));
  std::ranges::copy(target.secrets, std::back_inserter(secrets));
  const auto read = [&](http::Response& reply) {
    if (features.stream && http::content_type(reply).find("event-stream") != std::string::npos) {
      return _parse_sse_stream(reply, _config.model(), timeout_s);
    }
    return _parse_completion(http::read_json(reply, policy, reply.secrets()), _config.model(),
                             reply.secrets());
  };
  const auto note_refusal = [&](const http::Error& error) {
    if (target.on_401 && error.status() == 401) target.on_401();
  };
  for (;;) {
    http::Headers headers = target.headers;
    if (features.stream) headers["Accept"] = "text/event-stream";
    try {
      return http::send(target.url,
                        {.policy = policy,
                         .timeout_s = timeout_s,
                         .body = to_json(arguments_of(prompt, _config.model(), features)),
                         .headers = std::move(headers),
                         .secrets = secrets,
                         .transport = _transport.get(),
                         .advice_on_401 = target.advice_on_401},
                        read);
    } catch (const http::HttpFailure& failure) {
      note_refusal(failure);
      if (!drop_rejected(features, failure.status(), failure.detail())) {
        std::throw_with_nested(LLMError(std::string("LLM ") + failure.what()));
      }
    } catch (const http::Error& error) {  // stopped while the text of the refusal was read
      note_refusal(error);
      throw;
    }
  }
}

}  // namespace tovren_mapstead::engines::llm
