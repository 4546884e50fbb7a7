// Transports around a transport: they edit requests, and report what passes.
#include <stdexcept>

#include "tovren_mapstead/engines/http/edit.hpp"
#include "tovren_mapstead/engines/http/events.hpp"
#include "tovren_mapstead/engines/http/observe.hpp"
#include "tovren_mapstead/engines/http/playback.hpp"
#include "tovren_mapstead/engines/llm/fake.hpp"

#include "support.hpp"

namespace {

using namespace support;
using http::ExchangeEvent;
using http::PlaybackTransport;
using Replies = std::vector<http::PlaybackReply>;

const Replies ANSWER{llm::fake::answer("hi")};

TEST(Edit, ChangesOneMemberAndKeepsTheRest) {
  struct Case {
    const char* name;
    std::string body;
    std::function<bool(std::string&)> edit;
    std::string expected;
    bool changed = true;
  };

  const auto set = [](const char* name, const char* json) {
    return [=](std::string& body) { return http::set_member(body, name, json); };
  };
  const auto rename = [](const char* name, const char* to) {
    return [=](std::string& body) { return http::rename_member(body, name, to); };
  };
  const auto remove = [](const char* name) {
    return [=](std::string& body) { return http::remove_member(body, name); };
  };
  const std::string body = R"({"a":"x\",\"b\":1}","b":[1,{"c":2}],"c":3})";
  const Case cases[] = {
      {"replaces", body, set("b", "4"), R"({"a":"x\",\"b\":1}","b":4,"c":3})"},
      {"adds to none", "{}", set("a", "1"), R"({"a":1})"},
      {"adds", R"({"a":1})", set("b", "\"x\""), R"({"a":1,"b":"x"})"},
      {"renames", body, rename("c", "d"), R"({"a":"x\",\"b\":1}","b":[1,{"c":2}],"d":3})"},
      {"removes the first", body, remove("a"), R"({"b":[1,{"c":2}],"c":3})"},
      {"removes the last", body, remove("c"), R"({"a":"x\",\"b\":1}","b":[1,{"c":2}]})"},
      {"removes the only one", R"({ "a" : 1 })", remove("a"), "{ }"},
      {"finds no inner member", R"({"a":{"b":1}})", remove("b"), R"({"a":{"b":1}})", false},
      {"no object", R"(["a"])", set("a", "1"), R"(["a"])", false},
      {"cut", R"({"a":1)", set("b", "1"), R"({"a":1)", false},
      {"cut in a value", R"({"b":"\)", remove("a"), R"({"b":"\)", false}};
  for (const Case& c : cases) {
    std::string edited = c.body;
    EXPECT_EQ(c.edit(edited), c.changed) << c.name;
    EXPECT_EQ(edited, c.expected) << c.name;
  }
  std::string unchanged = body;
  EXPECT_THROW(http::set_member(unchanged, "a", "low"), std::invalid_argument);
  EXPECT_EQ(unchanged, body);
}

TEST(Edit, ReachesEveryRequestAndKeepsWhatItAddsOutOfErrors) {
  std::string title = "title";
  const auto edit = [&](http::Request& request) {
    request.headers["X-Title"] = title;
    request.headers["X-Corp-Token"] = "s3cret/value";
    request.url += "?key=query-key";
  };
  setenv("COPILOT_GITHUB_TOKEN", "gho_1", 1);
  const auto inner = std::make_shared<PlaybackTransport>(
      Replies{{.pieces = {R"({"token":"tok-1","expires_at":9e9})"}},
              llm::fake::status(401, "query-key s3cret\\/value title"),
              {.failure = http::TransportError("s3cret/value query-key title", false)}});
  const LLMClient client(
      {.provider = "copilot", .base_url = copilot::COPILOT_BASE, .model = "m", .max_retries = 0},
      {.transport = http::edit_requests(edit, inner, {"query-key"})});
  const auto ask = [&] { std::ignore = client.chat({}); };
  for (int i = 0; i < 2; ++i) {
    const auto text = text_of<llm::LLMError>(ask);
    EXPECT_TRUE(contains(text, "***") && contains(text, "title")) << text;
    EXPECT_FALSE(contains(text, "s3cret") || contains(text, "query-key")) << text;
  }
  title = "a\r\nB: c";
  const auto text = text_of<llm::LLMError>(ask);
  EXPECT_TRUE(contains(text, "the value of the header X-Title holds a line break")) << text;
  EXPECT_EQ(inner->requests().size(), 3U);
  for (const http::Request& request : inner->requests()) {
    EXPECT_EQ(request.headers.at("X-Title"), "title");
    EXPECT_TRUE(request.url.ends_with("?key=query-key"));
  }
}

TEST(Observe, ReportsTheStepsOfEachExchange) {
  struct Case {
    const char* name;
    Replies replies;
    std::vector<std::string> steps;
  };

  const http::TransportError broken("cable cut, fake-key says", true);
  const Case cases[] = {
      {"stream that ends before the body does",
       {llm::fake::stream({"a", "b"})},
       {"request", "head 200", "body", "body", "body", "body", "end"}},
      {"retried",
       {{.failure = broken}, llm::fake::status(503), ANSWER[0]},
       {"request", "failure cable cut, *** says", "request", "head 503", "body", "end", "request",
        "head 200", "body", "end"}},
      {"breaks off",
       {llm::fake::broken_stream({"a"}), ANSWER[0]},
       {"request", "head 200", "body", "failure the stream breaks off, as it was made to",
        "request", "head 200", "body", "end"}},
      {"not a stream after all",
       {{.pieces = {"data: \xff\n", "x"}, .content_type = "text/event-stream"}},
       {"request", "head 200", "body", "failure given up before the end of the reply"}}};
  for (const Case& c : cases) {
    std::vector<std::string> steps;
    std::set<std::uint64_t> ids;
    const auto observer = [&](const ExchangeEvent& event) {
      const char* const names[] = {"request", "head", "body", "end", "failure"};
      std::string step = names[static_cast<int>(event.kind)];
      if (event.kind == ExchangeEvent::Kind::head) step += " " + std::to_string(event.status);
      if (event.kind == ExchangeEvent::Kind::failure) step.append(" ").append(event.text);
      steps.push_back(step);
      ids.insert(event.id);
      EXPECT_GT(event.request_bytes, 50U);
    };
    const auto client =
        llm::fake::client(http::observe(observer, std::make_shared<PlaybackTransport>(c.replies)));
    try {
      std::ignore = client.chat({});
    } catch (const llm::LLMError&) {
    }
    EXPECT_EQ(steps, c.steps) << c.name;
    EXPECT_EQ(ids.size(), std::ranges::count(c.steps, "request")) << c.name;
  }
}

TEST(Observe, PassesOnWhatItsObserverThrowsAndNamesNoCredential) {
  const auto inner = std::make_shared<PlaybackTransport>(ANSWER);
  using enum ExchangeEvent::Kind;
  std::string url;
  auto thrown = end;
  const auto observer = [&](const ExchangeEvent& event) {
    url = event.url;
    if (event.kind == thrown) throw 7;
  };
  const LLMClient client({.base_url = "http://me:secret@h/v1?key=k", .model = "m", .api_key = "k"},
                         {.transport = http::observe(observer, inner)});
  const LLMResult result = client.chat({});  // at its end the call is over
  EXPECT_EQ(result.content() + result.finish_reason().value_or(""), "histop");
  EXPECT_EQ(url, "http://h/v1");
  for (const auto kind : {request, head, body}) {
    thrown = kind;
    EXPECT_THROW(std::ignore = client.chat({}), int);
  }
}

TEST(EventDecoder, SeesWhatTheClientSees) {
  const std::string body =
      "\uFEFFdata: {\"n\":1}\r\n: comment\n\ndata:{\"n\":2}\rdata: [3]\ndata: \xff\n"
      "data: {\"n\":4}\n\ndata: [DONE]\n\ndata: {\"n\":5}\n";
  for (std::size_t cut = 0; cut <= body.size(); ++cut) {
    http::EventDecoder decoder;
    std::string seen;
    for (const std::string& piece : {body.substr(0, cut), body.substr(cut)}) {
      decoder.feed(piece);
      for (auto event = decoder.next(); event.present(); event = decoder.next()) {
        seen += event["n"].text();
      }
    }
    EXPECT_EQ(seen, "124") << cut;
  }
}

TEST(Playback, NeedsAReply) {
  EXPECT_THROW(PlaybackTransport({}), std::invalid_argument);
}

}  // namespace
