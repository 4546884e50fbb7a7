// Whole calls: how they end. What they send and the outcomes of attempts are compared in
// paths_test.cpp.
#include "tovren_mapstead/engines/llm/fake.hpp"

#include "support.hpp"

namespace {

using namespace support;

const llm::Messages HELLO{llm::user("Hello")};
const Reply STREAMED{.pieces = {"data: {\"choices\":[{\"delta\":{\"content\":\"hi\"}}]}\n\n"},
                     .content_type = "Text/Event-Stream; charset=utf-8"};
const LLMResult HI({.content = "hi", .model = "m"});

// A client over played replies, its waits noted instead of waited.
struct Scene {
  explicit Scene(std::vector<Reply> replies, bool stream = true)
      : transport(std::make_shared<Playback>(std::move(replies))),
        client({.base_url = "http://h", .model = "m", .api_key = "sk-KEY-12345", .stream = stream},
               {.transport = transport,
                .wait = [this](double s, auto&, auto) { waits.push_back(s); }}) {}

  std::shared_ptr<Playback> transport;
  std::vector<double> waits;
  LLMClient client;
};

// Made before `main`, and before what the library makes when it is loaded. What it logs is nothing
// for those who build this.
const LLMResult EARLY = [] {
  testing::internal::CaptureStderr();
  const Reply no_json{.status = 400, .pieces = {"no response_format"}};
  const Reply thought{
      .pieces = {R"({"choices":[{"message":{"content":"<think>`a`</think>hi"}}]})"}};
  LLMResult result = Scene({no_json, thought}, false).client.chat(HELLO, {.response_json = true});
  std::ignore = testing::internal::GetCapturedStderr();
  return result;
}();

TEST(Chat, WorksBeforeMain) {
  EXPECT_EQ(EARLY, HI);
}

TEST(Chat, TakesFromTheConfigurationWhatTheCallLeavesOpen) {
  const auto transport = std::make_shared<Playback>(std::vector{STREAMED});
  const LLMClient client(
      {.base_url = "http://h", .model = "m", .api_key = "k", .temperature = 0.7, .max_tokens = 99},
      {.transport = transport});
  std::ignore = client.chat({});
  std::ignore = client.chat({}, {.temperature = 0.0, .max_tokens = 0});
  const auto& sent = transport->requests();
  EXPECT_TRUE(contains(sent.at(0).body, R"("temperature":0.7,"max_tokens":99,)"));
  EXPECT_TRUE(contains(sent.at(1).body, R"("temperature":0.0,"max_tokens":0,)"));
}

TEST(Chat, RefusesWhatCannotBeSent) {
  Scene scene({STREAMED});
  const auto text =
      text_of<llm::LLMError>([&] { std::ignore = scene.client.chat({llm::user("\xff")}); });
  EXPECT_TRUE(text.starts_with("LLM request cannot be written as JSON: ")) << text;
  EXPECT_TRUE(scene.transport->requests().empty());

  const LLMClient unconfigured({.base_url = "http://h", .model = "m"});
  EXPECT_EQ(text_of<llm::LLMError>([&] { std::ignore = unconfigured.chat(HELLO); }),
            "LLM is not configured (need generation.base_url, generation.model, and the "
            "TOVREN_LLM_API_KEY environment variable).");
}

TEST(Chat, EndsInTheClientsOwnErrors) {
  Scene scene({Reply{.status = 503}});
  const auto chat = [&](const llm::ChatOptions& options) {
    std::ignore = scene.client.chat(HELLO, options);
  };
  EXPECT_THROW(chat({.deadline = http::Clock::time_point::min()}), llm::LLMTimeout);
  const auto breaks = [asked = 0]() mutable { return ++asked > 1 ? throw 7 : false; };
  EXPECT_THROW(chat({.should_stop = breaks}), int);
  EXPECT_TRUE(scene.transport->requests().empty());
  const LLMClient waiting(scene.client.config(), {.transport = scene.transport});
  const auto start = http::Clock::now();
  EXPECT_THROW(std::ignore = waiting.chat(HELLO, {.deadline = start + 900ms}), llm::LLMTimeout);
  EXPECT_EQ(scene.transport->requests().size(),
            1U);  // the next would come too late, so it fails now
  EXPECT_LT(seconds_since(start), 0.8);
  EXPECT_THROW(chat({}), llm::LLMError);
  EXPECT_EQ(scene.waits, (std::vector<double>{1, 2}));
}

TEST(Failures, TellAProgramTheirStatusAndWhetherLaterMayBeBetter) {
  struct Case {
    const char* name;
    Reply reply;
    std::optional<int> status;
    bool later;
    llm::ChatOptions options{};
  };

  const http::TransportError silent("no data", true);
  const http::TransportError untrusted("cannot trust", false);
  const Case cases[] = {
      {"a wrong key", llm::fake::status(401), 401, false},
      {"a rate limit", llm::fake::status(429), 429, true},
      {"silence", {.failure = silent}, std::nullopt, true},
      {"a certificate", {.failure = untrusted}, std::nullopt, false},
      {"no choices", {.pieces = {"{}"}}, std::nullopt, false},
      {"late", {.status = 503}, std::nullopt, true, {.deadline = 0s}},
      {"stopped", {.status = 503}, std::nullopt, false, {.should_stop = [] { return true; }}}};
  for (const Case& c : cases) {
    try {
      std::ignore = Scene({c.reply}).client.chat(HELLO, c.options);
      ADD_FAILURE() << c.name;
    } catch (const llm::LLMError& error) {
      EXPECT_EQ(http::status_of(error), c.status) << c.name;
      EXPECT_EQ(http::may_succeed_later(error), c.later) << c.name;
    }
  }
}

TEST(Chat, QuotesTheStartOfARefusal) {
  Scene scene({Reply{.status = 418, .pieces = {std::string(600, 'x')}}});
  const auto text = text_of<llm::LLMError>([&] { std::ignore = scene.client.chat(HELLO); });
  EXPECT_TRUE(text.ends_with(" " + std::string(500, 'x'))) << text;
}

TEST(Chat, TakesPeriodsAndStopTokens) {
  std::stop_source source;
  Scene scene({STREAMED});
  const auto chat = [&](const llm::ChatOptions& options) {
    return scene.client.chat(HELLO, options);
  };
  for (const http::Clock::duration period :
       {http::Clock::duration(30s), http::Clock::duration::max()}) {
    EXPECT_EQ(chat({.should_stop = source.get_token(), .deadline = period}), HI);
  }
  source.request_stop();
  EXPECT_THROW(chat({.should_stop = source.get_token()}), llm::LLMStopped);
}

TEST(Chat, ServesManyThreadsOverAConnectionEach) {
  Server server([](Exchange& exchange) {
    const Json asked = Json::parse(exchange.request().body);
    const std::string word = asked["messages"][0]["content"].dump();
    exchange.reply(200, R"({"choices":[{"message":{"content":)" + word + "}}]}");
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
