// Whole calls: what is sent, what is tried again, what comes out.
#include <atomic>
#include <mutex>
#include <sstream>
#include <thread>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include "tovren_mapstead/engines/llm.hpp"

#include "loopback/server.hpp"
#include "support.hpp"

namespace {

using namespace support;
namespace llm = tovren_mapstead::engines::llm;
using llm::LLMClient;
using llm::LLMConfig;
using loopback::Exchange;
using loopback::Server;

const llm::Messages HELLO{{{"role", "user"}, {"content", "Hello"}}};
const std::string WHOLE =
    R"({"model":"x","choices":[{"message":{"content":"hi"},"finish_reason":"stop"}],)"
    R"("usage":{"prompt_tokens":1,"completion_tokens":2}})";
const std::string STREAMED =
    R"(data: {"model":"x","choices":[{"delta":{"content":"h"}}]})"
    "\n\n"
    R"(data: {"choices":[{"delta":{"content":"i"},"finish_reason":"stop"}]})"
    "\n\n"
    R"(data: {"choices":[],"usage":{"prompt_tokens":1,"completion_tokens":2}})"
    "\n\n"
    "data: [DONE]\n\n";
const llm::LLMResult HI{"hi", "x", 1, 2, "stop"};

// A client over played replies, its waits noted instead of waited.
struct Scene {
  explicit Scene(std::deque<Reply> replies, bool stream = true)
      : transport(std::make_shared<Playback>(std::move(replies))),
        client({.base_url = "http://h.example/api//",
                .model = "m",
                .api_key = "sk-KEY-12345",
                .stream = stream},
               {.transport = transport, .wait = [this](double period_s, const auto&, auto) {
                  waits.push_back(period_s);
                }}) {}

  Json body(std::size_t request) const { return Json::parse(transport->requests.at(request).body); }

  std::shared_ptr<Playback> transport;
  std::vector<double> waits;
  LLMClient client;
};

Reply stream_of(std::string body) {
  return {.pieces = {std::move(body)}, .content_type = "Text/Event-Stream; charset=utf-8"};
}

TEST(Chat, SendsWhatItIsAskedToSend) {
  Scene streaming({stream_of(STREAMED)});
  EXPECT_EQ(streaming.client.chat(HELLO), HI);
  const http::Request& request = streaming.transport->requests.at(0);
  EXPECT_EQ(request.url, "http://h.example/api/chat/completions");
  EXPECT_EQ(request.body,
            R"({"model":"m","messages":[{"role":"user","content":"Hello"}],"temperature":0.2,)"
            R"("max_tokens":1500,"stream":true,"stream_options":{"include_usage":true}})");
  EXPECT_EQ(request.headers.at("Authorization"), "Bearer sk-KEY-12345");
  EXPECT_EQ(request.headers.at("Accept"), "text/event-stream");

  Scene whole({{.pieces = {WHOLE}}}, false);
  EXPECT_EQ(whole.client.chat(HELLO, {.temperature = 0.0, .max_tokens = 0, .response_json = true}),
            HI);
  EXPECT_EQ(whole.transport->requests.at(0).body,
            R"({"model":"m","messages":[{"role":"user","content":"Hello"}],"temperature":0.0,)"
            R"("max_tokens":0,"response_format":{"type":"json_object"}})");
  EXPECT_EQ(whole.transport->requests.at(0).headers.count("Accept"), 0U);

  // A provider that does not stream after all.
  EXPECT_EQ(Scene({{.pieces = {WHOLE}}}).client.chat(HELLO), HI);
}

TEST(Chat, DoesWithoutWhatAProviderRejects) {
  std::ostringstream log;
  const auto logger = std::make_shared<spdlog::logger>(
      "tovren_mapstead.engines.llm", std::make_shared<spdlog::sinks::ostream_sink_mt>(log));
  logger->set_pattern("%l %v");
  spdlog::register_logger(logger);
  const Reply no_json{.status = 400, .pieces = {"no Response_Format, no streams"}};
  const Reply no_stream{.status = 400, .pieces = {"unknown stream_options"}};
  const std::string json_warning =
      "warning provider rejected response_format; retrying without JSON mode\n";
  const std::string stream_warning = "warning provider rejected streaming; retrying without it\n";

  struct Case {
    const char* what;
    std::deque<Reply> replies;
    bool stream, json;
    std::vector<std::pair<bool, bool>> asked;  // streamed, JSON mode
    std::string warnings;
    const char* error;
  };

  const Case cases[] = {
      {"JSON mode",
       {no_json, stream_of(STREAMED)},
       true,
       true,
       {{true, true}, {true, false}},
       json_warning,
       nullptr},
      {"streaming",
       {no_stream, {.pieces = {WHOLE}}},
       true,
       false,
       {{true, false}, {false, false}},
       stream_warning,
       nullptr},
      {"one after the other",
       {no_json, no_json, {.pieces = {WHOLE}}},
       true,
       true,
       {{true, true}, {true, false}, {false, false}},
       json_warning + stream_warning,
       nullptr},
      {"the other way round",
       {no_stream, no_json, {.pieces = {WHOLE}}},
       true,
       true,
       {{true, true}, {false, true}, {false, false}},
       stream_warning + json_warning,
       nullptr},
      {"no fourth request",
       {no_json},
       true,
       true,
       {{true, true}, {true, false}, {false, false}},
       json_warning + stream_warning,
       "LLM request failed with HTTP 400"},
      {"not used",
       {no_stream},
       false,
       false,
       {{false, false}},
       "",
       "LLM request failed with HTTP 400"},
      {"another status",
       {{.status = 422, .pieces = {"response_format"}}},
       true,
       true,
       {{true, true}},
       "",
       "LLM request failed with HTTP 422"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    log.str("");
    Scene scene(c.replies, c.stream);
    const auto act = [&] { return scene.client.chat(HELLO, {.response_json = c.json}); };
    if (c.error == nullptr) {
      EXPECT_EQ(act(), HI);
    } else {
      EXPECT_TRUE(text_of<llm::LLMError>(act).starts_with(c.error));
    }
    std::vector<std::pair<bool, bool>> asked;
    for (std::size_t i = 0; i < scene.transport->requests.size(); ++i) {
      const Json body = scene.body(i);
      asked.emplace_back(body.contains("stream"), body.contains("response_format"));
      EXPECT_EQ(body.contains("stream_options"), asked.back().first);
      EXPECT_EQ(scene.transport->requests[i].headers.count("Accept"), asked.back().first ? 1U : 0U);
    }
    EXPECT_EQ(asked, c.asked);
    EXPECT_EQ(log.str(), c.warnings);
    EXPECT_TRUE(scene.waits.empty());
  }
  spdlog::drop(logger->name());
}

TEST(Chat, TriesAgainWhereThatCanHelp) {
  const Reply busy{.status = 503, .pieces = {"busy, sk-KEY-12345"}};

  struct Case {
    const char* what;
    std::deque<Reply> replies;
    std::size_t asked;
    const char* error;  // null: answered
  };

  const Case cases[] = {
      {"recovers", {busy, {.status = 429}, stream_of(STREAMED)}, 3, nullptr},
      {"broken off",
       {stream_of("data: {}\n"),
        {.failure = http::TransportError("cut", true)},
        stream_of(STREAMED)},
       3,
       nullptr},
      {"half a body", {{.pieces = {WHOLE.substr(0, 40)}}, {.pieces = {WHOLE}}}, 2, nullptr},
      {"never recovers",
       {busy},
       3,
       "LLM call failed after 3 tries; last failure: the server answered HTTP 503"},
      {"bad key",
       {{.status = 401, .pieces = {"sk-KEY-12345"}}},
       1,
       "LLM request failed with HTTP 401 (check the API key): ***"},
      {"no API",
       {{.pieces = {"<html>sk-KEY-12345"}}},
       1,
       "LLM request failed: the reply is not JSON"},
      {"an error body",
       {{.pieces = {R"({"error":"sk-KEY-12345"})"}}},
       1,
       "LLM response missing 'choices': ***"},
      {"a certificate",
       {{.failure = http::TransportError("untrusted", false)}},
       1,
       "LLM request failed: untrusted"},
      {"no text", {stream_of(": \xff\n")}, 1, "LLM stream is not valid UTF-8"},
      {"an error in the stream",
       {stream_of("data: {\"error\":\"sk-KEY-12345\"}\n")},
       3,
       "LLM call failed after 3 tries; last failure: stream error: ***"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Scene scene(c.replies);
    if (c.error == nullptr) {
      EXPECT_EQ(scene.client.chat(HELLO), HI);
    } else {
      const auto text = text_of<llm::LLMError>([&] { std::ignore = scene.client.chat(HELLO); });
      EXPECT_TRUE(text.starts_with(c.error)) << text;
      EXPECT_FALSE(contains(text, "sk-KE")) << text;
    }
    EXPECT_EQ(scene.transport->requests.size(), c.asked);
    const double waits[] = {1, 2};
    EXPECT_EQ(scene.waits, std::vector<double>(waits, waits + c.asked - 1));
  }
}

TEST(Chat, RefusesWhatCannotBeSent) {
  Scene scene({{.pieces = {WHOLE}}});
  const auto refused = [&](const llm::Messages& messages, double temperature) {
    const auto text = text_of<llm::LLMError>(
        [&] { std::ignore = scene.client.chat(messages, {.temperature = temperature}); });
    EXPECT_TRUE(text.starts_with("LLM request cannot be written")) << text;
    return text;
  };
  EXPECT_TRUE(
      contains(refused({{{"role", "user"}, {"content", "\xff"}}}, 0), "/messages/0/content"));
  EXPECT_TRUE(contains(refused(HELLO, std::nan("")), "/temperature"));
  EXPECT_TRUE(scene.transport->requests.empty());

  int asked = 0;
  const LLMClient unconfigured(LLMConfig{.base_url = "http://h", .model = "m"});
  const auto text = text_of<llm::LLMError>([&] {
    std::ignore = unconfigured.chat(HELLO, {.should_stop = [&] { return ++asked > 0; }});
  });
  EXPECT_EQ(text,
            "LLM is not configured (need generation.base_url, generation.model, and the "
            "TOVREN_LLM_API_KEY environment variable).");
  EXPECT_EQ(asked, 0);
}

TEST(Chat, EndsInTheClientsOwnErrors) {
  Scene scene({Reply{.status = 503}});
  EXPECT_THROW(std::ignore = scene.client.chat(HELLO, {.should_stop = [] { return true; }}),
               llm::LLMStopped);
  EXPECT_THROW(std::ignore = scene.client.chat(HELLO, {.deadline = http::Clock::now()}),
               llm::LLMTimeout);
  EXPECT_TRUE(scene.transport->requests.empty());
  EXPECT_THROW(std::ignore = scene.client.chat(HELLO, {.should_stop = []() -> bool { throw 7; }}),
               int);
  EXPECT_THROW(std::ignore = scene.client.chat(HELLO, {.deadline = http::Clock::now() + 500ms}),
               llm::LLMTimeout);
  EXPECT_EQ(scene.transport->requests.size(), 1U);  // the next would come too late, so it fails now
}

TEST(Chat, ServesManyThreadsOverAConnectionEach) {
  Server server([](Exchange& exchange) {
    const std::string answer = Json::parse(exchange.request().body)["messages"][0]["content"];
    exchange.start_stream();
    for (const char c : answer) {
      exchange.chunk(R"(data: {"choices":[{"delta":{"content":")" + std::string(1, c) +
                     "\"}}]}\n\n");
    }
    exchange.chunk("data: [DONE]\n\n");
    exchange.end_stream();
  });
  const LLMClient client({.base_url = server.url(), .model = "m", .api_key = "k", .max_retries = 0},
                         {.transport = http::make_transport()});
  constexpr int THREADS = 8;
  constexpr int CALLS = 100;
  std::atomic<int> right = 0;
  std::vector<std::jthread> threads;
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < CALLS; ++i) {
        const std::string word = std::to_string(t * CALLS + i);
        right += client.chat({{{"role", "user"}, {"content", word}}}).content == word ? 1 : 0;
      }
    });
  }
  threads.clear();
  EXPECT_EQ(right, THREADS * CALLS);
  EXPECT_LE(server.connections(), THREADS);
}

}  // namespace
