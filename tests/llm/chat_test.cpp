// Whole calls: how they end. What they send and the outcomes of attempts are compared in
// paths_test.cpp.
#include <climits>
#include <cmath>

#include "tovren_mapstead/engines/llm/fake.hpp"

#include "support.hpp"

namespace {

using namespace support;
using llm::LLMConfig;

const llm::Messages HELLO{llm::user("Hello")};
const Reply STREAMED{.pieces = {"data: {\"choices\":[{\"delta\":{\"content\":\"hi\"}}]}\n\n"},
                     .content_type = "Text/Event-Stream; charset=utf-8"};
const LLMResult HI({.content = "hi", .model = "m"});

// A client over played replies, its waits noted instead of waited.
struct Scene {
  explicit Scene(std::vector<Reply> replies, LLMConfig::Fields fields = {})
      : transport(std::make_shared<Playback>(std::move(replies))),
        client(complete(std::move(fields)),
               {.transport = transport,
                .wait = [this](double s, auto&, auto) { waits.push_back(s); }}) {}

  static LLMConfig complete(LLMConfig::Fields fields) {
    fields.base_url = "http://h";
    fields.model = "m";
    fields.api_key = "sk-KEY-12345";
    return LLMConfig(std::move(fields));
  }

  LLMResult chat(const llm::ChatOptions& options = {}) { return client.chat(HELLO, options); }

  // The text of the error that a call ends in.
  std::string error() {
    return text_of<llm::LLMError>([&] { chat(); });
  }

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
  LLMResult result = Scene({no_json, thought}, {.stream = false}).chat({.response_json = true});
  std::ignore = testing::internal::GetCapturedStderr();
  return result;
}();

TEST(Chat, WorksBeforeMain) {
  EXPECT_EQ(EARLY, HI);
}

TEST(Chat, TakesFromTheConfigurationWhatTheCallLeavesOpen) {
  Scene scene({STREAMED}, {.temperature = 0.7, .max_tokens = 99});
  scene.chat();
  scene.chat({.temperature = 0.0, .max_tokens = 0});
  const auto& sent = scene.transport->requests();
  EXPECT_TRUE(contains(sent.at(0).body, R"("temperature":0.7,"max_tokens":99,)"));
  EXPECT_TRUE(contains(sent.at(1).body, R"("temperature":0.0,"max_tokens":0,)"));
}

TEST(Chat, RefusesWhatCannotBeSent) {
  const std::tuple<LLMClient, llm::Messages, std::string> cases[] = {
      // client, messages, how the error's text begins
      {Scene({STREAMED}).client, {llm::user("\xff")}, "LLM request cannot be written as JSON: "},
      {Scene({STREAMED}, {.timeout_s = -5}).client, HELLO,
       "LLM timeout_s is negative or not finite"},
      {Scene({STREAMED}, {.timeout_s = std::nan("")}).client, HELLO, "LLM timeout_s is negative"},
      {LLMClient({.base_url = "http://h", .model = "m"}), HELLO,
       "LLM is not configured (need generation.base_url, generation.model, and the "
       "TOVREN_LLM_API_KEY environment variable)."}};
  for (const auto& [client, messages, told] : cases) {
    const auto text = text_of<llm::LLMError>([&] { std::ignore = client.chat(messages); });
    EXPECT_TRUE(text.starts_with(told)) << text;
  }
}

TEST(Chat, MayRetryForEver) {
  Scene scene({{.status = 503}, {.status = 418}}, {.max_retries = INT_MAX});
  EXPECT_TRUE(contains(scene.error(), "HTTP 418"));
}

TEST(Chat, EndsInTheClientsOwnErrors) {
  Scene scene({Reply{.status = 503}});
  EXPECT_THROW(scene.chat({.deadline = http::Clock::time_point::min()}), llm::LLMTimeout);
  const auto breaks = [asked = 0]() mutable { return ++asked > 1 ? throw 7 : false; };
  EXPECT_THROW(scene.chat({.should_stop = breaks}), int);
  EXPECT_TRUE(scene.transport->requests().empty());
  const LLMClient waiting(scene.client.config(), {.transport = scene.transport});
  const auto start = http::Clock::now();
  EXPECT_THROW(std::ignore = waiting.chat(HELLO, {.deadline = start + 900ms}), llm::LLMTimeout);
  EXPECT_LT(seconds_since(start), 0.8);  // the next attempt would come too late, so it fails now
  EXPECT_EQ(scene.transport->requests().size(), 1U);
  EXPECT_THROW(scene.chat(), llm::LLMError);
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
      Scene({c.reply}).chat(c.options);
      ADD_FAILURE() << c.name;
    } catch (const llm::LLMError& error) {
      EXPECT_EQ(http::status_of(error), c.status) << c.name;
      EXPECT_EQ(http::may_succeed_later(error), c.later) << c.name;
    }
  }
}

TEST(Chat, QuotesTheStartOfARefusal) {
  const auto text = Scene({{.status = 418, .pieces = {std::string(600, 'x')}}}).error();
  EXPECT_TRUE(text.ends_with(" " + std::string(500, 'x'))) << text;
}

TEST(Chat, TakesPeriodsAndStopTokens) {
  std::stop_source source;
  Scene scene({STREAMED});
  for (const http::Clock::duration period :
       {http::Clock::duration(30s), http::Clock::duration::max()}) {
    EXPECT_EQ(scene.chat({.should_stop = source.get_token(), .deadline = period}), HI);
  }
  source.request_stop();
  EXPECT_THROW(scene.chat({.should_stop = source.get_token()}), llm::LLMStopped);
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
