// Whole calls: what is sent, what is left out when it is rejected, how it ends. The outcomes of
// single attempts stand in the table of the roads.
#include <sstream>

#include <fcntl.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include "tovren_mapstead/engines/llm/fake.hpp"

#include "support.hpp"

namespace {

using namespace support;

const llm::Messages HELLO{llm::user("Hello")};
const Reply WHOLE{.pieces = {R"({"model":"x","choices":[{"message":{"content":"hi"}}]})"}};
const Reply STREAMED{.pieces = {"data: {\"model\":\"x\",\"choices\":[{\"delta\":{\"content\":\"hi\"}}]}\n\n"},
                     .content_type = "Text/Event-Stream; charset=utf-8"};
const LLMResult HI({.content = "hi", .model = "x"});

// A client over played replies, its waits noted instead of waited.
struct Scene {
  explicit Scene(std::deque<Reply> replies, bool stream = true)
      : transport(std::make_shared<Playback>(std::move(replies))),
        client({.base_url = "http://h.example/api//", .model = "m", .api_key = "sk-KEY-12345", .temperature = 0.7, .max_tokens = 99, .stream = stream},
               {.transport = transport, .wait = [this](double s, auto&, auto) { waits.push_back(s); }}) {}

  std::shared_ptr<Playback> transport;
  std::vector<double> waits;
  LLMClient client;
};

const Reply NO_JSON{.status = 400, .pieces = {"no Response_Format, no streams"}};
const Reply THOUGHT{
    .pieces = {R"({"model":"x","choices":[{"message":{"content":"<think>`a`</think>hi"}}]})"}};

// Made before `main`, and before what the library makes when it is loaded. What it logs is nothing
// for those who build this.
const LLMResult EARLY = [] {
  const int kept = dup(STDERR_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDERR_FILENO);
  LLMResult result = Scene({NO_JSON, THOUGHT}, false).client.chat(HELLO, {.response_json = true});
  dup2(kept, STDERR_FILENO);
  close(kept), close(nowhere);
  return result;
}();

TEST(Chat, WorksBeforeMain) {
  EXPECT_EQ(EARLY, HI);
}

TEST(Chat, SendsWhatItIsAskedToSend) {
  Scene streaming({STREAMED});
  EXPECT_EQ(streaming.client.chat(HELLO), HI);
  const http::Request& request = streaming.transport->requests.at(0);
  EXPECT_EQ(request.url, "http://h.example/api/chat/completions");
  EXPECT_EQ(request.body,
            R"({"model":"m","messages":[{"role":"user","content":"Hello"}],"temperature":0.7,)"
            R"("max_tokens":99,"stream":true,"stream_options":{"include_usage":true}})");
  EXPECT_EQ(request.headers.at("Authorization"), "Bearer sk-KEY-12345");
  EXPECT_EQ(request.headers.at("Accept"), "text/event-stream");

  Scene whole({WHOLE}, false);
  EXPECT_EQ(whole.client.chat(HELLO, {.temperature = 0.0, .max_tokens = 0, .response_json = true}), HI);
  EXPECT_EQ(whole.transport->requests.at(0).body,
            R"({"model":"m","messages":[{"role":"user","content":"Hello"}],"temperature":0.0,)"
            R"("max_tokens":0,"response_format":{"type":"json_object"}})");
  EXPECT_EQ(whole.transport->requests.at(0).headers.count("Accept"), 0U);
}

TEST(Chat, DoesWithoutWhatAProviderRejects) {
  std::ostringstream log;
  const auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(log);
  const auto logger = std::make_shared<spdlog::logger>("tovren_mapstead.engines.llm", sink);
  logger->set_pattern("%l %v");
  spdlog::register_logger(logger);
  const Reply& no_json = NO_JSON;
  const Reply no_stream{.status = 400, .pieces = {"unknown stream_options"}};
  const Reply unprocessable{.status = 422, .pieces = {"response_format"}};
  const std::string J = "warning provider rejected response_format; retrying without JSON mode\n";
  const std::string S = "warning provider rejected streaming; retrying without it\n";

  struct Case {
    const char* what;
    std::deque<Reply> replies;
    bool stream, json;
    std::string asked;  // a letter a request: b both features, s streaming, j JSON mode, - neither
    std::string warnings;
    const char* error;
  };

  const Case cases[] = {
      {"JSON mode", {no_json, STREAMED}, true, true, "bs", J, nullptr},
      {"streaming", {no_stream, WHOLE}, true, false, "s-", S, nullptr},
      {"one after the other", {no_json, no_json, WHOLE}, true, true, "bs-", J + S, nullptr},
      {"the other way round", {no_stream, no_json, WHOLE}, true, true, "bj-", S + J, nullptr},
      {"no fourth request", {no_json}, true, true, "bs-", J + S, "LLM request failed with HTTP 400"},
      {"not used", {no_stream}, false, false, "-", "", "LLM request failed with HTTP 400"},
      {"another status", {unprocessable}, true, true, "b", "", "LLM request failed with HTTP 422"}};
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
    std::string asked;
    for (const http::Request& request : scene.transport->requests) {
      const bool streamed = contains(request.body, R"("stream":true,"stream_options":)");
      const bool json = contains(request.body, "response_format");
      asked += "-jsb"[2 * streamed + json];
      EXPECT_EQ(request.headers.count("Accept"), streamed ? 1U : 0U);
    }
    EXPECT_EQ(asked, c.asked);
    EXPECT_EQ(log.str(), c.warnings);
    EXPECT_TRUE(scene.waits.empty());
  }
  spdlog::drop(logger->name());
}

TEST(Chat, RefusesWhatCannotBeSent) {
  Scene scene({WHOLE});
  const llm::Messages bad{llm::user("\xff")};
  const auto text = text_of<llm::LLMError>([&] { std::ignore = scene.client.chat(bad); });
  EXPECT_TRUE(text.starts_with("LLM request cannot be") && contains(text, "UTF-8 at /messages/0/content")) << text;
  EXPECT_TRUE(scene.transport->requests.empty());

  const LLMClient unconfigured({.base_url = "http://h", .model = "m"});
  const auto never = []() -> bool { throw 7; };
  EXPECT_EQ(text_of<llm::LLMError>([&] { std::ignore = unconfigured.chat(HELLO, {.should_stop = never}); }),
            "LLM is not configured (need generation.base_url, generation.model, and the "
            "TOVREN_LLM_API_KEY environment variable).");
}

TEST(Chat, EndsInTheClientsOwnErrors) {
  Scene scene({Reply{.status = 503}});
  const auto chat = [&](const llm::ChatOptions& options) { std::ignore = scene.client.chat(HELLO, options); };
  EXPECT_THROW(chat({.should_stop = [] { return true; }}), llm::LLMStopped);
  for (const auto past : {http::Clock::now(), http::Clock::time_point::min()}) {
    EXPECT_THROW(chat({.deadline = past}), llm::LLMTimeout);
  }
  EXPECT_THROW(chat({.should_stop = [asked = 0]() mutable { return ++asked > 1 ? throw 7 : false; }}), int);
  EXPECT_TRUE(scene.transport->requests.empty());
  const LLMClient waiting(scene.client.config(), {.transport = scene.transport});
  const auto start = http::Clock::now();
  EXPECT_THROW(std::ignore = waiting.chat(HELLO, {.deadline = start + 900ms}), llm::LLMTimeout);
  EXPECT_EQ(scene.transport->requests.size(), 1U);  // the next would come too late, so it fails now
  EXPECT_LT(seconds_since(start), 0.5);
  EXPECT_THROW(chat({}), llm::LLMError);
  EXPECT_EQ(scene.waits, (std::vector<double>{1, 2}));
  for (const int status : {408, 409, 429, 500, 502, 503, 504}) {
    EXPECT_EQ(Scene({Reply{.status = status}, STREAMED}).client.chat(HELLO), HI) << status;
  }
  Scene refusing({Reply{.status = 418, .pieces = {std::string(600, 'x')}}});
  EXPECT_TRUE(text_of<llm::LLMError>([&] { std::ignore = refusing.client.chat(HELLO); }).ends_with(" " + std::string(500, 'x')));
  EXPECT_THROW(std::ignore = Scene({STREAMED}, false).client.chat(HELLO), llm::LLMError);  // no stream was asked for
}

TEST(Failures, TellAProgramTheirStatusAndWhetherLaterMayBeBetter) {
  struct Case {
    const char* name;
    http::PlaybackReply reply;
    std::optional<int> status;
    bool later;
  };

  const http::TransportError silent("no data", true);
  const http::TransportError untrusted("cannot trust", false);
  const Case cases[] = {{"a wrong key", llm::fake::status(401), 401, false},
                        {"too long", llm::fake::status(400, "context length"), 400, false},
                        {"a rate limit", llm::fake::status(429), 429, true},
                        {"a broken server", llm::fake::status(503), 503, true},
                        {"silence", {.failure = silent}, std::nullopt, true},
                        {"a certificate", {.failure = untrusted}, std::nullopt, false},
                        {"no choices", {.pieces = {"{}"}}, std::nullopt, false}};
  const auto check = [](const Case& c, const llm::ChatOptions& options) {
    const auto replies = std::make_shared<http::PlaybackTransport>(std::vector{c.reply});
    try {
      std::ignore = llm::fake::client(replies).chat(HELLO, options);
      ADD_FAILURE() << c.name;
    } catch (const llm::LLMError& error) {
      EXPECT_EQ(http::status_of(error), c.status) << c.name;
      EXPECT_EQ(http::may_succeed_later(error), c.later) << c.name;
    }
  };
  for (const Case& c : cases) check(c, {});
  check({"late", llm::fake::status(503), std::nullopt, true}, {.deadline = 0s});
  check({"stopped", llm::fake::status(503), std::nullopt, false}, {.should_stop = [] { return true; }});
  const auto quota = llm::fake::status(429, "insufficient_quota");
  const auto text = text_of<llm::LLMError>([&] {
    std::ignore = llm::fake::client(std::make_shared<http::PlaybackTransport>(std::vector{quota}))
                      .chat(HELLO);
  });
  EXPECT_TRUE(contains(text, "the account's quota is used up")) << text;
}

TEST(Chat, TakesPeriodsAndStopTokens) {
  std::stop_source source;
  source.request_stop();
  const auto client = llm::fake::client(
      std::make_shared<http::PlaybackTransport>(std::vector{llm::fake::answer("hi")}));
  EXPECT_THROW(std::ignore = client.chat(HELLO, {.should_stop = source.get_token()}),
               llm::LLMStopped);
  EXPECT_EQ(client.chat(HELLO, {.should_stop = std::stop_token(), .deadline = 30s}).content(), "hi");
  EXPECT_EQ(client.chat(HELLO, {.deadline = std::chrono::hours::max()}).content(), "hi");
  EXPECT_THROW(std::ignore = client.chat(HELLO, {.deadline = -1s}), llm::LLMTimeout);
}

TEST(Chat, ServesManyThreadsOverAConnectionEach) {
  Server server([](Exchange& exchange) {
    const Json asked = Json::parse(exchange.request().body);
    exchange.reply(200, R"(data: {"choices":[{"delta":{"content":)" + asked["messages"][0]["content"].dump() + "}}]}\n\n", "text/event-stream");
  });
  const LLMClient client({.base_url = server.url(), .model = "m", .api_key = "k", .max_retries = 0},
                         {.transport = http::make_transport()});
  std::atomic<int> question = 0;
  std::atomic<int> right = 0;
  in_threads(8, [&] {
    for (int i = 0; i < 100; ++i) {
      const std::string word = std::to_string(++question);
      right += client.chat({llm::user(word)}).content() == word ? 1 : 0;
    }
  });
  EXPECT_EQ(right, 800);
  EXPECT_LE(server.connections(), 16) << "more than a busy machine's late ends explain";
}

}  // namespace
