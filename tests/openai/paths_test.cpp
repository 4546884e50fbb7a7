// The same calls over plain HTTP and through the client library, from one table, with the
// differences that there are. The search path of the process decides which path is taken.
#include <cstdlib>
#include <sstream>
#include <variant>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include "endpoint/endpoint.hpp"
#include "openai/loader.hpp"
#include "support.hpp"

namespace {

using namespace support;
using endpoint::Handler;
using endpoint::sending;
namespace openai = tovren_mapstead::openai;

const bool LIBRARY = std::string_view(std::getenv("LD_LIBRARY_PATH")) != "";
const std::string KEY = "sk-KEY-12345";
constexpr const char* EVENT_STREAM = "text/event-stream";

Handler stream(const std::string& body) {
  return sending(200, body, EVENT_STREAM);
}

std::string event(const std::string& json) {
  return "data: " + json + "\n\n";
}

std::string delta(const std::string& content, const std::string& rest = "") {
  return event(R"({"model":"x","choices":[{"delta":{"content":")" + content + "\"}" + rest + "}]}");
}

Handler whole(const std::string& content) {
  return sending(200, R"({"model":"x","choices":[{"message":{"content":)" + content +
                          R"(},"finish_reason":"stop"}],)"
                          R"("usage":{"prompt_tokens":1,"completion_tokens":"2"}})");
}

const std::string FINISH = R"(,"finish_reason":"stop")";
const std::string USAGE =
    event(R"({"choices":[],"usage":{"prompt_tokens":1,"completion_tokens":2.0}})");
const std::string EVENTS = delta("<think>a</think> h") + delta("i", FINISH) + USAGE;
const Handler STREAMED = stream(EVENTS + "data: [DONE]\n\n");
const Handler WHOLE = whole("\"hi\"");
// Names both features: JSON mode goes first.
const Handler NO_JSON = sending(400, "no Response_Format, no Streams");
const Handler NO_STREAM = sending(400, "Stream?");
const Handler BREAK = [](Exchange& exchange) { exchange.reset(); };
const LLMResult HI{{"hi", "x", 1, 2, "stop"}};

class Paths : public testing::Test {
 protected:
  // `replies`: one after the other, the last one again and again.
  LLMResult ask(const std::vector<Handler>& replies, bool stream, bool json) {
    server.forget();
    for (const Handler& reply : replies) server.does(reply);
    const LLMClient client(
        {.base_url = server.url() + "//", .model = "m", .api_key = KEY, .stream = stream},
        {.wait = [](double, auto&, auto) {}});
    return client.chat({llm::system("Be brief"), llm::user("Hello")},
                       {.temperature = 0.0, .max_tokens = 9, .response_json = json});
  }

  endpoint::Endpoint server;
};

TEST_F(Paths, SendTheSameRequest) {
  const std::string common =
      R"({"model":"m","messages":[{"role":"system","content":"Be brief"},)"
      R"({"role":"user","content":"Hello"}],"temperature":0.0,"max_tokens":9)";
  ask({WHOLE}, false, false);
  EXPECT_EQ(server.asked().at(0).body, common + "}");
  ask({STREAMED}, true, true);
  const loopback::Request request = server.asked().at(0);
  EXPECT_EQ(request.body, common + R"(,"stream":true,"stream_options":{"include_usage":true},)"
                                   R"("response_format":{"type":"json_object"}})");
  EXPECT_EQ(request.method + request.target, "POST/chat/completions");
  EXPECT_EQ(request.headers.at("authorization"), "Bearer " + KEY);
  EXPECT_EQ(request.headers.at("content-type"), "application/json");
}

TEST_F(Paths, WarnOfWhatTheProviderRejects) {
  std::ostringstream log;
  const auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(log);
  const auto logger = std::make_shared<spdlog::logger>("tovren_mapstead.engines.llm", sink);
  logger->set_pattern("%l %v");
  spdlog::register_logger(logger);
  EXPECT_EQ(ask({NO_STREAM, NO_JSON, WHOLE}, true, true), HI);
  EXPECT_TRUE(contains(server.asked().at(1).body, "response_format"));
  spdlog::drop(logger->name());
  EXPECT_EQ(log.str(),
            "warning provider rejected streaming; retrying without it\n"
            "warning provider rejected response_format; retrying without JSON mode\n");
}

TEST_F(Paths, LeadToTheSameAnswers) {
  ASSERT_EQ(llm::_openai_available(), LIBRARY);

  struct Case {
    const char* name;
    std::string asked;  // a letter a request: b both features, s streaming, j JSON mode, - neither
    std::vector<Handler> replies;
    std::variant<LLMResult, std::string> outcome = HI;  // or part of the error's text
  };

  const Handler refusal = sending(200, R"({"error":")" + KEY + "\"}");
  const Case cases[] = {
      {"whole where a stream was asked for", "s", {WHOLE}},
      // The library's whole replies are passed on as they are.
      {"whole, with reasoning",
       "-",
       {whole(R"("<think>a</think> hi ")")},
       LLMResult{{LIBRARY ? "<think>a</think> hi " : "hi", "x", 1, 2, "stop"}}},
      {"half a character a delta",
       "s",
       {stream(delta(R"(\ud83d)") + delta(R"(\ude00\ud83d)"))},
       LLMResult{{"\U0001F600\uFFFD", "x"}}},
      {"no content, as with calls of tools, and empty members",
       "-",
       {sending(200,
                R"({"model":"","choices":[{"message":{"content":null},"finish_reason":""}]})")},
       LLMResult{{"", "m", 0, 0, ""}}},
      {"empty members and two choices",
       "s",
       {stream(event(R"({"model":"","choices":[{"delta":{"content":"hi"},"finish_reason":""},)"
                     R"({"delta":{"content":"2"}}]})"))},
       LLMResult{{"hi", "m"}}},
      {"counts that become null",
       "s",
       {stream(EVENTS + event(R"({"usage":{"prompt_tokens":null,"completion_tokens":null}})"))}},
      {"neither JSON mode nor streams", "bs-", {NO_JSON}, "HTTP 400"},
      {"busy, then broken off", "sss", {sending(503, ""), BREAK, STREAMED}},
      {"cut in a character", "ss", {stream(delta("x").substr(0, 51) + "\xC3"), STREAMED}},
      {"bad key", "s", {sending(401, KEY)}, "failed with HTTP 401 (check the API key): ***"},
      {"no choices", "-", {refusal}, "response missing 'choices': "},
      {"no choices where a stream was asked for", "s", {refusal}, "choices"},
      {"no JSON", "-", {sending(200, "<" + KEY)}, "the reply is not JSON"},
      {"no object", "-", {sending(200, "[]")}, "is not a JSON object"},
      {"an error after the answer",
       "s",
       {stream(EVENTS + event(R"({"error":1,"model":"y","usage":{"prompt_tokens":9},)"
                              R"("choices":[{"delta":{"content":"!"},"finish_reason":"!"}]})"))}},
      {"an error that finishes, with a NUL",
       "sss",
       {stream(delta("h") + event(R"({"error":{"message":")" + KEY +
                                  R"(\u0000!"},"choices":[{"finish_reason":"stop"}]})"))},
       "3 attempts; last failure: stream error: ***\uFFFD!"},
      {"an error without words",
       "sss",
       {stream(event(R"({"error":{"message":"","code":429}})"))},
       R"(stream error: {"message":"","code":429})"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const char first = c.asked[0];
    const auto act = [&] {
      return ask(c.replies, first == 's' || first == 'b', first == 'j' || first == 'b');
    };
    if (const auto* const answer = std::get_if<LLMResult>(&c.outcome)) {
      EXPECT_EQ(act(), *answer);
    } else {
      const auto text = text_of<llm::LLMError>(act);
      EXPECT_TRUE(contains(text, std::get<std::string>(c.outcome))) << text;
      EXPECT_FALSE(contains(text, "sk-KE")) << text;
    }
    std::string asked;
    for (const loopback::Request& request : server.asked()) {
      const bool streamed = contains(request.body, R"("stream":true)");
      asked += "-jsb"[2 * streamed + contains(request.body, "response_format")];
      EXPECT_EQ(request.headers.at("accept") == EVENT_STREAM, streamed);
    }
    EXPECT_EQ(asked, c.asked);
  }
}

// The client takes its key out of whatever a library says; this one must not say it.
TEST(Binding, ShowsNoKey) {
  if (!LIBRARY) GTEST_SKIP() << "no library";

  const std::string error = R"({"error":")" + KEY + R"(\u0000!"})";
  for (const Handler& reply : {stream(event(error)), sending(200, error)}) {
    const Server server(reply);
    const auto client = openai::load_library().open({.base_url = server.url(), .api_key = KEY});
    const auto text = text_of<openai::OpenAIError>([&] {
      std::get<1>(client->create_chat_completion({.model = "m", .messages = {}, .stream = true}))
          ->next();
    });
    EXPECT_TRUE(contains(text, "***") && contains(text, "!") && !contains(text, "sk-KE")) << text;
  }
}

TEST(Time, IsBounded) {
  struct Case {
    const char* sent;  // again and again
    double timeout_s;
    std::chrono::milliseconds deadline;
  };

  const Case cases[] = {{"", 60, 200ms},
                        // Never silent, whether it says anything or not, and ends its lines or not.
                        {": still there\n", 0.2, 1min},
                        {"data: {\"choices\":[]}\n\n", 0.2, 1min},
                        {"x", 0.2, 1min}};
  for (const auto& [sent, timeout_s, deadline] : cases) {
    Server server([text = std::string(sent)](Exchange& exchange) {
      if (text.empty()) return exchange.stall();
      for (exchange.start_stream(); exchange.chunk(text); exchange.pause(1ms)) {
      }
    });
    const LLMClient client({.base_url = server.url(),
                            .model = "m",
                            .api_key = KEY,
                            .timeout_s = timeout_s,
                            .max_retries = 0});
    const auto start = http::Clock::now();
    EXPECT_THROW(std::ignore = client.chat({}, {.deadline = deadline}), llm::LLMError) << sent;
    EXPECT_LT(seconds_since(start), 3) << sent;
  }
}

}  // namespace
