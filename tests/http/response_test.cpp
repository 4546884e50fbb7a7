#include <typeinfo>

#include "tovren_mapstead/engines/http/edit.hpp"

#include "support.hpp"

namespace {

using namespace support;
using Lines = std::vector<std::string>;

Lines lines_of(std::vector<std::string> pieces) {
  return play({.pieces = std::move(pieces)}, [](http::Response& reply) {
    Lines lines;
    for (const std::string_view line : reply) lines.emplace_back(line);
    return lines;
  });
}

TEST(Lines, EndAtLfCrlfAndCr) {
  const std::pair<std::string, Lines> cases[] = {
      {"", {}},
      {"a\r\nb\rc\n\nd", {"a", "b", "c", "", "d"}},
      {"\r\r\n\n\r", {"", "", "", ""}},
      {"\xEF\xBB\xBFx\n\xEF\xBB\xBFy", {"x", "\xEF\xBB\xBFy"}},
      {"caf\xC3\xA9\u2028still\n", {"caf\xC3\xA9\u2028still"}},
      // The end of the body cuts a character; elsewhere bad bytes are left for their reader.
      {"a\ncaf\xC3", {"a", "caf"}},
      {"a\n\xF0\x9F\x98", {"a"}},
      {"a\xE2\x82\n", {"a\xE2\x82"}},
      {"\xC3x", {"\xC3x"}}};
  for (const auto& [body, lines] : cases) {
    for (std::size_t cut = 0; cut <= body.size(); ++cut) {
      EXPECT_EQ(lines_of({body.substr(0, cut), body.substr(cut)}), lines) << body << cut;
    }
  }
}

TEST(Lines, AreBoundedOverATransportThatKnowsNoBounds) {
  int asked = 0;
  const http::RetryPolicy stops{.should_stop = [&] { return ++asked > 3; }};
  const http::RetryPolicy late{.deadline = http::Clock::now() + 30ms};
  const Reply reply{.pieces = std::vector<std::string>(5, "x")};
  const auto body = [](http::Response& read) {
    std::this_thread::sleep_for(40ms);
    read.read_rest(99);
  };
  const auto lines = [](http::Response& read) {
    read.limit_lines(0.02);
    std::this_thread::sleep_for(40ms);
    read.next_line();
  };
  EXPECT_THROW(play(reply, body, stops), http::Stopped);
  EXPECT_THROW(play(reply, body, late), http::DeadlineExceeded);
  EXPECT_EQ(text_of<http::Retryable>([&] { play(reply, lines); }),
            "stream exceeded timeout before completing");
}

TEST(Lines, MayBeLongAndManyInLinearTime) {
  // Quadratic work on any of these takes minutes.
  const std::string megabyte(1 << 20, 'x');
  EXPECT_EQ(lines_of(Lines(8, megabyte)).at(0).size(), 8U << 20U);
  EXPECT_EQ(lines_of(Lines(1 << 20, "x")).at(0).size(), 1U << 20U);
  for (const char* const end : {"\r", "\n"}) {
    std::string body;
    for (int i = 0; i < (1 << 20); ++i) body += std::string("ab") + end;
    EXPECT_EQ(lines_of({body}).size(), 1U << 20U);
  }
}

void post(
    Playback& transport, const http::Headers& headers,
    const std::function<void(http::Response&)>& read = [](http::Response&) {},
    const std::string& url = "http://h", const http::JsonObject& body = {}) {
  http::send(
      url,
      {.policy = POLICY, .body = body, .headers = headers, .secrets = {}, .transport = &transport},
      read);
}

TEST(Send, RefusesRequestsThatAreNotSafeBeforeSendingThem) {
  const auto none = [](http::Response&) {};
  const std::string with_nul("http://h\0sk-1", 13);
  Playback transport({Reply{}});
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"X-Key",
       [&] {
         post(transport, {{"X-Key", "sk-1\n"}});
       }},
      {"X-Key",
       [&] {
         post(transport, {{"X-Key", "sk-1\r\nX: y"}});
       }},
      {"X-Key",
       [&] {
         post(transport, {{"X-Key", with_nul}});
       }},
      {"header",
       [&] {
         post(transport, {{"bad name", "x"}});
       }},
      {"URL", [&] { post(transport, {}, none, with_nul); }},
      {"/content", [&] {
         post(transport, {}, none, "http://h", http::JsonObject().add("content", "sk-1 \xff"));
       }}};
  for (const auto& [told, act] : cases) {
    const auto text = text_of<http::HttpFailure>(act);
    EXPECT_TRUE(contains(text, told) && !contains(text, "sk-1")) << text;
  }
  EXPECT_TRUE(transport.requests().empty());
}

TEST(Send, SaysWhatCanBeDoneAboutAStatus) {
  const std::string failed = "request failed with HTTP ", busy = "the server answered HTTP ";
  const std::pair<Reply, std::string> cases[] = {
      {{401}, failed + "401 (check the API key)"},
      {{404}, failed + "404 (check the URL and the model name)"},
      {{407}, failed + "407 (the proxy wants a user name and password; check the proxy variables)"},
      {{418, {" say\n KEY-1"}}, failed + "418: say ***"},
      {{429, {"KEY-1"}},
       busy + "429 (the server limits the rate or the account; send requests less often, or "
              "later): ***"},
      {{501}, failed + "501 (the server does not offer this)"},
      {{199}, failed + "199"},
      {{300}, failed + "300 (a redirect, which is not followed; use the final URL)"},
      {{.status = 301, .location = "http://x/y?KEY#KEY"},
       failed + "301 (a redirect to http://x/y, which is not followed; use the final URL)"},
      {{.status = 308, .location = "http://KEY@x/y"},
       failed + "308 (a redirect, which is not followed; use the final URL)"}};
  for (const auto& [reply, told] : cases) {
    const auto act = [&, &played = reply] {
      play(played, [](http::Response&) {}, POLICY, {"KEY-1"});
    };
    EXPECT_EQ(text_of<http::Error>(act), told);
  }
}

// What a caller gets of an error that a transport throws.
template <class Error, class Thrown>
void expect(const Thrown& thrown, int status, const std::string& text,
            const std::string& detail = "") {
  const auto transport = http::edit_requests([&](http::Request&) { throw Thrown(thrown); });
  try {
    http::get("http://h", {.policy = POLICY, .secrets = {"sk-1"}, .transport = transport.get()},
              [](http::Response&) {});
    ADD_FAILURE() << text;
  } catch (const http::Error& error) {
    EXPECT_EQ(typeid(error), typeid(Error)) << text;
    EXPECT_EQ(error.status().value_or(0), status) << text;
    EXPECT_EQ(error.what(), text);
    const auto* const failure = dynamic_cast<const http::HttpFailure*>(&error);
    EXPECT_EQ(failure == nullptr ? "" : failure->detail(), detail);
  }
}

TEST(Send, KeepsWhatATransportThrowsButForSecrets) {
  using http::HttpFailure;
  using http::TransportError;
  expect<http::TimedOut>(http::TimedOut("a sk-1", 1), 1, "a ***");
  expect<http::Stopped>(http::Stopped("a sk-1", 4), 4, "a ***");
  expect<http::DeadlineExceeded>(http::DeadlineExceeded("a sk-1", 5), 5, "a ***");
  expect<http::Error>(http::Error("a sk-1", 6), 6, "a ***");
  const std::string nul("a\0sk-1", 6), shown = "a\uFFFD***";
  expect<HttpFailure>(HttpFailure(nul, 8, nul), 8, shown + ": " + shown, shown);
  expect<http::Retryable>(TransportError(nul, true), 0, shown);
  // The status of a proxy sorts the failure, and is not taken for the server's.
  expect<HttpFailure>(TransportError("a", true, 407), 0, "request failed: a");
  expect<http::Retryable>(TransportError("a", false, 503), 0, "a");
}

TEST(Send, GivesBackOnlyConnectionsThatAreInGoodOrder) {
  Playback transport({Reply{.pieces = {"a\n", "b"}}});
  post(transport, {{"content-type", "text/x"}}, [](http::Response& reply) { reply.next_line(); });
  EXPECT_EQ(transport.finished(), 1);
  EXPECT_THROW(post(transport, {}, [](http::Response&) { throw 7; }), int);
  EXPECT_EQ(transport.finished(), 1);
  EXPECT_EQ(transport.requests()[0].headers.count("Content-Type"), 0U);
  EXPECT_EQ(transport.requests()[0].headers.count("User-Agent"), 1U);
}

}  // namespace
