// The same calls over plain HTTP and through the client library, from one table, with the
// differences that there are. Which road is taken, the search path of the process says.
#include <atomic>
#include <cstdlib>
#include <deque>

#include "loopback/server.hpp"
#include "support.hpp"
#include "tovren_mapstead/engines/llm.hpp"

namespace {

using namespace support;
namespace llm = tovren_mapstead::engines::llm;
using loopback::Exchange;

const bool THROUGH_LIBRARY = std::string_view(std::getenv("EXPECTED_ROAD")) == "library";

struct Script {
  int status;  // 0: the connection breaks
  std::string body;
  const char* type = "application/json";
};

Script stream(const std::string& body) { return {200, body, "text/event-stream"}; }

std::string delta(const std::string& content, const std::string& rest = "") {
  return R"(data: {"model":"x","choices":[{"delta":{"content":")" + content + "\"}" + rest + "}]}\n\n";
}

std::string whole(const std::string& content) {
  return R"({"model":"x","choices":[{"message":{"content":")" + content +
         R"("},"finish_reason":"stop"}],"usage":{"prompt_tokens":1,"completion_tokens":"2"}})";
}

const std::string STREAMED = delta("<think>a</think> h") + delta("i", R"(,"finish_reason":"stop")") +
                             R"(data: {"choices":[],"usage":{"prompt_tokens":1,"completion_tokens":2.0}})" "\n\n"
                             "data: [DONE]\n\n";
const llm::LLMResult HI{"hi", "x", 1, 2, "stop"};

struct Case {
  const char* what;
  std::deque<Script> replies;
  bool stream = true, json = false;
  int asked = 1;
  llm::LLMResult answer = HI;
  const char* error = nullptr;          // how the text begins, over HTTP
  const char* library_error = nullptr;  // the same through the library; null: no difference
};

TEST(Roads, LeadToTheSameAnswers) {
  ASSERT_EQ(llm::_openai_available(), THROUGH_LIBRARY);
  const std::string key = "sk-KEY-12345";
  const Case cases[] = {
      {"streamed", {stream(STREAMED)}},
      {"whole", {{200, whole("hi")}}, false},
      // The library's whole replies are passed on as they are.
      {"whole, with reasoning", {{200, whole("<think>a</think> hi ")}}, false, false, 1,
       {THROUGH_LIBRARY ? "<think>a</think> hi " : "hi", "x", 1, 2, "stop"}},
      {"whole where a stream was asked for", {{200, whole("hi")}}},
      {"half a character a delta", {stream(delta(R"(\ud83d)") + delta(R"(\ude00\ud83d)"))}, true, false, 1,
       {"\U0001F600\uFFFD", "x"}},
      {"half a character", {{200, whole(R"(\ud83dx)")}}, false, false, 1, {"\uFFFDx", "x", 1, 2, "stop"}},
      {"no JSON mode", {{400, "response_format?"}, stream(STREAMED)}, true, true, 2},
      {"no stream", {{400, "no Streams"}, {200, whole("hi")}}, true, false, 2},
      {"neither", {{400, "response_format, stream"}}, true, true, 3, HI, "LLM request failed with HTTP 400",
       "LLM SDK call failed: request failed with HTTP 400"},
      {"busy twice", {{503, ""}, {429, ""}, stream(STREAMED)}, true, false, 3},
      {"broken off", {{0, ""}, stream(delta("h")), stream(STREAMED)}, true, false, 2, {"h", "x"}},
      // Any 5xx of the library's is transient.
      {"501", {{501, "no"}, stream(STREAMED)}, true, false, THROUGH_LIBRARY ? 2 : 1, HI,
       THROUGH_LIBRARY ? nullptr : "LLM request failed with HTTP 501"},
      {"always busy", {{503, key}}, true, false, 3, HI, "LLM call failed after 3 tries; last failure: the server answered HTTP 503",
       "LLM call failed after 3 tries; last failure: request failed with HTTP 503"},
      {"bad key", {{401, key}}, true, false, 1, HI, "LLM request failed with HTTP 401 (check the API key): ***",
       "LLM SDK call failed: request failed with HTTP 401 (check the API key): ***"},
      {"no choices", {{200, R"({"error":")" + key + "\"}"}}, false, false, 1, HI, "LLM response missing 'choices': ***",
       R"(LLM SDK response missing 'choices': {"error":"***"})"},
      {"no JSON", {{200, "<" + key}}, false, false, 1, HI, "LLM request failed: the reply is not JSON",
       "LLM SDK call failed: request failed: the reply is not JSON"},
      {"no object", {{200, "[]"}}, false, false, 1, HI, "LLM response is not a JSON object",
       "LLM SDK call failed: the reply is not a JSON object"},
      {"no text", {stream(": \xff\n")}, true, false, 1, HI, "LLM stream is not valid UTF-8",
       "LLM SDK call failed: the stream is not valid UTF-8"},
      {"an error in the stream", {stream(delta("h") + "data: {\"error\":{\"message\":\"" + key + "\"}}\n")}, true, false, 3, HI,
       "LLM call failed after 3 tries; last failure: stream error: ***"},
      {"an error after the answer", {stream(STREAMED.substr(0, STREAMED.find("data: [")) + "data: {\"error\":1}\n")}},
      {"an empty stream", {stream(": nothing\n")}, true, false, 3, HI, "LLM call failed after 3 tries; last failure: empty stream"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::deque<Script> left = c.replies;
    loopback::Server server([&](Exchange& exchange) {
      const Script script = left.front();
      if (left.size() > 1) left.pop_front();
      script.status == 0 ? exchange.reset() : exchange.reply(script.status, script.body, script.type);
    });
    const llm::LLMClient client({.base_url = server.url() + "/", .model = "m", .api_key = key, .stream = c.stream},
                                {.wait = [](double, const auto&, auto) {}});
    const auto act = [&] { return client.chat({{{"role", "user"}, {"content", "x"}}}, {.response_json = c.json}); };
    const char* const error = THROUGH_LIBRARY && c.library_error != nullptr ? c.library_error : c.error;
    if (error == nullptr) {
      EXPECT_EQ(act(), c.answer);
    } else {
      const auto text = text_of<llm::LLMError>([&] { std::ignore = act(); });
      EXPECT_TRUE(text.starts_with(error)) << text;
      EXPECT_FALSE(contains(text, "sk-KE")) << text;
    }
    EXPECT_EQ(server.requests(), c.asked);
  }
}

TEST(Roads, EndInTime) {
  loopback::Server busy([](Exchange& exchange) { exchange.reply(503, ""); });
  loopback::Server silent([](Exchange& exchange) { exchange.stall(); });
  const auto client_of = [](const loopback::Server& server) {
    return llm::LLMClient({.base_url = server.url(), .model = "m", .api_key = "sk-1"});
  };
  const auto moment = http::Clock::now() + 100ms;  // during the wait between two attempts
  EXPECT_THROW(std::ignore = client_of(busy).chat({}, {.should_stop = [=] { return http::Clock::now() > moment; }}),
               llm::LLMStopped);
  EXPECT_LT(seconds_since(moment), 0.05);
  const auto deadline = http::Clock::now() + 200ms;
  EXPECT_THROW(std::ignore = client_of(silent).chat({}, {.deadline = deadline}), llm::LLMTimeout);
  EXPECT_LT(seconds_since(deadline), 0.05);
}

}  // namespace
