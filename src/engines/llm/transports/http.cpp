// One attempt of a chat call over HTTP: one POST, and another without what the provider rejects.
#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/send.hpp"

#include "engines/llm/client/prompt.hpp"
#include "engines/llm/reply/completion.hpp"
#include "engines/llm/stream/sse.hpp"
#include "engines/llm/transports/endpoint.hpp"
#include "engines/llm/transports/fallback.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using Json = nlohmann::ordered_json;

// A JSON object. To destroy what stands in an object or an array, nlohmann's own destructor needs
// memory, and ends the process where there is none: this one begins at the leaves.
class Object {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  ~Object() { clear(_json); }

  Json& operator[](const std::string& name) { return _json[name]; }

  // A null that is to become an object by itself is left half made where memory runs out.
  Json& add_object(const std::string& name) { return _json[name] = Json::object(); }

  [[nodiscard]] const Json& json() const { return _json; }

  void reserve(std::size_t members) { _json.get_ref<Json::object_t&>().reserve(members); }

 private:
  static void clear(Json& json) noexcept {
    if (auto* const list = json.get_ptr<Json::array_t*>()) {
      for (Json& inner : *list) clear(inner);
      list->clear();
    } else if (auto* const members = json.get_ptr<Json::object_t*>()) {
      for (auto& [name, inner] : *members) clear(inner);
      members->clear();
    }
  }

  Json _json = Json::object();
};

void add_messages(const Messages& messages, Json& list) {
  list = Json::array();
  for (const Message& message : messages) {
    Json& object = list.emplace_back(Json::object());
    for (const auto& [name, value] : message) object[name] = value;
  }
}

}  // namespace

LLMResult LLMClient::_chat_via_urllib(const Prompt& prompt, double timeout_s,
                                      const http::RetryPolicy& policy) const {
  const http::Headers headers{{"Authorization", "Bearer " + _config.api_key.value_or("")}};
  return _chat_http(chat_url(_config.base_url), headers, prompt, timeout_s, policy);
}

LLMResult LLMClient::_chat_http(const std::string& url, const http::Headers& headers,
                                const Prompt& prompt, double timeout_s,
                                const http::RetryPolicy& policy,
                                std::optional<bool> stream_choice) const {
  const bool stream = stream_choice.value_or(_config.stream);
  Object body;
  body.reserve(7);  // members with constant names are copied to grow
  body["model"] = _config.model;
  add_messages(prompt.messages, body["messages"]);
  body["temperature"] = prompt.temperature;
  body["max_tokens"] = prompt.max_tokens;
  http::Headers req_headers = headers;
  if (stream) {
    body["stream"] = true;
    body.add_object("stream_options")["include_usage"] = true;
    req_headers["Accept"] = "text/event-stream";
  }
  if (prompt.response_json) body.add_object("response_format")["type"] = "json_object";

  http::Secrets secrets = _secrets;
  std::ranges::copy(http::secrets_of(headers), std::back_inserter(secrets));
  if (_copilot_auth) std::ranges::copy(_copilot_auth->secrets(), std::back_inserter(secrets));

  const auto read = [&](http::Response& reply) {
    if (stream && http::content_type(reply).find("event-stream") != std::string::npos) {
      return _parse_sse_stream(reply, _config.model, timeout_s);
    }
    return _parse_completion(http::read_json(reply, policy, reply.secrets()), _config.model,
                             reply.secrets());
  };
  const auto drop_refused_token = [&](const http::Error& error) {
    if (_copilot_auth && error.status().value_or(0) == 401) _copilot_auth->drop_token(headers);
  };
  try {
    return http::send(
        url,
        {.policy = policy,
         .timeout_s = timeout_s,
         .body = body.json(),
         .headers = req_headers,
         .secrets = secrets,
         .transport = _transport.get(),
         .advice_on_401 = _copilot_auth ? copilot::TOKEN_REFUSED : http::CHECK_API_KEY},
        read);
  } catch (const http::HttpFailure& failure) {
    drop_refused_token(failure);
    switch (choose_fallback(failure.status(), failure.detail(), prompt.response_json, stream)) {
      case Fallback::without_json_mode:
        return _chat_http(url, headers, prompt.without_json_mode(), timeout_s, policy, stream);
      case Fallback::without_streaming:
        return _chat_http(url, headers, prompt, timeout_s, policy, false);
      case Fallback::none:
        throw LLMError(std::string("LLM ") + failure.what());
    }
    throw;
  } catch (const http::Error& error) {  // stopped or late, in the middle of the refusal perhaps
    drop_refused_token(error);
    throw;
  }
}

}  // namespace tovren_mapstead::engines::llm
