// The same calls over plain HTTP and through the client library, from one table, with the
// differences that there are. Which road is taken, the search path of the process says.
#include <cstdlib>

#include "openai/loader.hpp"
#include "support.hpp"

namespace {

using namespace support;
namespace openai = tovren_mapstead::openai;

const bool LIBRARY = std::string_view(std::getenv("EXPECTED_ROAD")) == "library";
const std::string KEY = "sk-KEY-12345";

struct Script {
  int status;  // 0: the connection breaks
  std::string body;
  const char* type = "application/json";
};

Script stream(const std::string& body) {
  return {200, body, "text/event-stream"};
}

std::string delta(const std::string& content, const std::string& rest = "") {
  return R"(data: {"model":"x","choices":[{"delta":{"content":")" + content + "\"}" + rest + "}]}\n\n";
}

Script whole(const std::string& content) {
  return {200, R"({"model":"x","choices":[{"message":{"content":")" + content +
                   R"("},"finish_reason":"stop"}],"usage":{"prompt_tokens":1,"completion_tokens":"2"}})"};
}

const std::string EVENTS = delta("<think>a</think> h") + delta("i", R"(,"finish_reason":"stop")") +
                           R"(data: {"choices":[],"usage":{"prompt_tokens":1,"completion_tokens":2.0}})"
                           "\n\n";
const Script STREAMED = stream(EVENTS + "data: [DONE]\n\n");

const LLMResult HI{{"hi", "x", 1, 2, "stop"}};

TEST(Roads, LeadToTheSameAnswers) {
  ASSERT_EQ(llm::_openai_available(), LIBRARY);

  struct Case {
    const char* what;
    char mode;  // s: streamed, j: streamed in JSON mode, w: whole
    int asked;
    std::deque<Script> replies;
    LLMResult answer = HI;
    std::string over_http{}, through_library{};  // how the error's text begins, if it is one
  };

  const std::string h = "LLM request failed", l = "LLM SDK call failed: request failed";
  const std::string tries = "LLM call failed after 3 attempts; last failure: ";
  const std::string in_band = tries + "stream error: ***", empty = tries + "empty stream";
  const std::string no_text[] = {"LLM stream is not valid UTF-8",
                                 "LLM SDK call failed: stream is not"};
  const Case cases[] = {
      {"streamed", 's', 1, {STREAMED}},
      {"whole where a stream was asked for", 's', 1, {whole("hi")}},
      // The library's whole replies are passed on as they are.
      {"whole, with reasoning", 'w', 1, {whole("<think>a</think> hi ")}, {{LIBRARY ? "<think>a</think> hi " : "hi", "x", 1, 2, "stop"}}},
      {"half a character a delta", 's', 1, {stream(delta(R"(\ud83d)") + delta(R"(\ude00\ud83d)"))}, {{"\U0001F600\uFFFD", "x"}}},
      {"half a character", 'w', 1, {whole(R"(\ud83dx)")}, {{"\uFFFDx", "x", 1, 2, "stop"}}},
      {"no JSON mode", 'j', 2, {{400, "response_format?"}, STREAMED}},
      {"no stream", 's', 2, {{400, "no Streams"}, whole("hi")}},
      {"busy twice", 's', 3, {{503, ""}, {429, ""}, STREAMED}},
      {"broken off", 's', 3, {{0, ""}, stream(": nothing\n"), STREAMED}},
      {"cut in a character", 's', 2, {stream(delta("x").substr(0, 51) + "\xC3"), STREAMED}},
      {"half a body", 'w', 2, {{200, "{\"choices\":["}, whole("hi")}},
      {"an error after the answer", 's', 1, {stream(EVENTS + "data: {\"error\":1}\n")}},
      {"bad key", 's', 1, {{401, KEY}}, HI, h + " with HTTP 401 (check the API key): ***", l + " with HTTP 401 (check the API key): ***"},
      // Any 5xx of the library's is transient.
      {"not offered", 's', LIBRARY ? 3 : 1, {{501, KEY}}, HI, h + " with HTTP 501", tries + "request failed with HTTP 501"},
      {"no choices", 'w', 1, {{200, "{\"error\":\"" + KEY + "\"}"}}, HI, "LLM response missing 'choices': ***", R"(LLM SDK response missing 'choices': {"error":"***"})"},
      {"no JSON", 'w', 1, {{200, "<" + KEY}}, HI, h + ": the reply is not JSON", l + ": the reply is not JSON"},
      {"no object", 'w', 1, {{200, "[]"}}, HI, "LLM response is not a JSON object", "LLM SDK call failed: the reply is not"},
      {"no text at the end", 's', 1, {stream(": \xff")}, HI, no_text[0], no_text[1]},
      {"no text", 's', 1, {stream(": \xff\n")}, HI, no_text[0], no_text[1]},
      {"error in the stream", 's', 3, {stream(delta("h") + "data: {\"error\":{\"message\":\"" + KEY + "\"}}\n")}, HI, in_band, in_band},
      {"error without words", 's', 3, {stream("data: {\"error\":{\"code\":429}}\n")}, HI, tries + "stream error: {\"code\":429}", tries + "stream error: {\"code\":429}"},
      {"empty stream", 's', 3, {stream(": nothing\n")}, HI, empty, empty}};
  std::mutex mutex;
  std::deque<Script> left;
  Server server([&](Exchange& exchange) {
    const std::lock_guard lock(mutex);
    const Script script = left.front();
    if (left.size() > 1) left.pop_front();
    script.status == 0 ? exchange.reset() : exchange.reply(script.status, script.body, script.type);
  });
  const auto ask = [&](char mode, std::deque<Script> replies) {
    {
      const std::lock_guard lock(mutex);
      left = std::move(replies);
    }
    const LLMClient client({.base_url = server.url() + "/", .model = "m", .api_key = KEY, .stream = mode != 'w'},
                           {.wait = [](double, auto&, auto) {}});
    return client.chat({llm::user("x")}, {.response_json = mode == 'j'});
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const int before = server.requests();
    if (c.over_http.empty()) {
      EXPECT_EQ(ask(c.mode, c.replies), c.answer);
    } else {
      const auto text = text_of<llm::LLMError>([&] { std::ignore = ask(c.mode, c.replies); });
      EXPECT_TRUE(text.starts_with(LIBRARY ? c.through_library : c.over_http)) << text;
      EXPECT_FALSE(contains(text, "sk-KE")) << text;
    }
    EXPECT_EQ(server.requests() - before, c.asked);
  }
}

// The client takes its key out of whatever a library says; this one must not say it.
TEST(Roads, ShowNoKeyOnTheWay) {
  if (!LIBRARY) return;
  const std::pair<bool, std::string> replies[] = {
      {true, R"(data: {"error":")" + KEY + "\\u0000!\"}\n"},
      {true, R"({"error":")" + KEY + "\\u0000!\"}"},
      {false, R"({"error":")" + KEY + "\\u0000!\"}"}};
  for (const auto& [stream, body] : replies) {
    const char* const type = body.starts_with("data") ? "text/event-stream" : "application/json";
    Server server([&body = body, type](Exchange& exchange) { exchange.reply(200, body, type); });
    const auto client = openai::load_library().open({.base_url = server.url(), .api_key = KEY});
    std::string told;
    try {
      const openai::CreateArguments asked{.model = "m", .messages = {}, .stream = stream};
      const auto reply = client->create_chat_completion(asked);
      if (stream) std::get<1>(reply)->next();
      told = std::get<0>(reply).text;
    } catch (const openai::OpenAIError& error) {
      told = error.what();
    }
    EXPECT_TRUE(contains(told, "***") && contains(told, "!")) << told;
    EXPECT_FALSE(contains(told, "sk-KE")) << told;
  }
}

TEST(Roads, EndInTime) {
  Server silent([](Exchange& exchange) { exchange.stall(); });
  const LLMClient patient({.base_url = silent.url(), .model = "m", .api_key = KEY});
  const auto deadline = http::Clock::now() + 200ms;
  EXPECT_THROW(std::ignore = patient.chat({}, {.deadline = deadline}), llm::LLMTimeout);
  EXPECT_LT(seconds_since(deadline), 0.05);

  // A server that is never silent is bounded all the same, whether it says anything or not, and
  // whether it ends its lines.
  for (const char* const filler : {": still there\n", "data: {\"choices\":[]}\n\n", "x"}) {
    Server chatty([&](Exchange& exchange) {
      for (exchange.start_stream(); exchange.chunk(filler); exchange.pause(1ms)) {
      }
    });
    const LLMClient client({.base_url = chatty.url(), .model = "m", .api_key = KEY, .timeout_s = 0.2, .max_retries = 0});
    const auto start = http::Clock::now();
    EXPECT_TRUE(contains(text_of<llm::LLMError>([&] { std::ignore = client.chat({}); }), "after 1 attempt (no retries)"));
    EXPECT_NEAR(seconds_since(start), 0.6, 0.4) << filler;
  }
}

}  // namespace
