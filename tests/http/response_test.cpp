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
  auto options = over(transport);
  options.headers = headers;
  options.body = body;
  http::send(url, std::move(options), read);
}

TEST(Send, RefusesRequestsThatAreNotSafeBeforeSendingThem) {
  struct Case {
    const char* told;
    http::Headers headers{};
    std::string url = "http://h";
    std::string content{};
  };

  const std::string with_nul("http://h\0sk-1", 13);
  Playback transport({Reply{}});
  const Case cases[] = {{.told = "X-Key", .headers = {{"X-Key", "sk-1\n"}}},
                        {.told = "X-Key", .headers = {{"X-Key", "sk-1\rX: y"}}},
                        {.told = "X-Key", .headers = {{"X-Key", with_nul}}},
                        {.told = "header", .headers = {{"bad name", "x"}}},
                        {.told = "URL", .url = with_nul},
                        {.told = "/content", .content = "sk-1 \xff"}};
  for (const Case& c : cases) {
    const auto text = text_of<http::HttpFailure>([&] {
      post(
          transport, c.headers, [](http::Response&) {}, c.url,
          http::JsonObject().add("content", c.content));
    });
    EXPECT_TRUE(contains(text, c.told) && !contains(text, "sk-1")) << text;
  }
  EXPECT_TRUE(transport.requests().empty());
}

// docs/errors.md has the texts of most; its proofs compare them.
TEST(Send, SaysWhatCanBeDoneAboutAStatus) {
  const std::pair<Reply, std::string> cases[] = {
      {{418, {" say\n KEY-1"}}, "request failed with HTTP 418: say ***"},
      {{429, {"KEY-1"}},
       "the server answered HTTP 429 (the server limits the rate or the account; send requests "
       "less often, or later): ***"},
      {{501}, "request failed with HTTP 501 (the server does not offer this)"},
      {{.status = 301, .location = "http://x/y?KEY#KEY"},
       "request failed with HTTP 301 (a redirect to http://x/y, which is not followed; use the "
       "final URL)"}};
  for (const auto& [reply, told] : cases) {
    const auto act = [&, &played = reply] {
      play(played, [](http::Response&) {}, POLICY, {"KEY-1"});
    };
    EXPECT_EQ(text_of<http::Error>(act), told);
  }
}

// The text that a caller gets of an error that a transport throws.
template <class Error, class Thrown>
std::string told(const Thrown& thrown, int status = 0, const std::string& detail = "") {
  const auto transport = http::edit_requests([&](http::Request&) { throw Thrown(thrown); });
  return text_of<Error>([&] {
    try {
      http::send("http://h", over(*transport, POLICY, {"sk-1"}), [](http::Response&) {});
    } catch (const http::Error& error) {
      EXPECT_EQ(error.status().value_or(0), status);
      const auto* const failure = dynamic_cast<const http::HttpFailure*>(&error);
      EXPECT_EQ(failure == nullptr ? "" : failure->detail(), detail);
      throw;
    }
  });
}

TEST(Send, KeepsWhatATransportThrowsButForSecrets) {
  using http::HttpFailure;
  using http::TransportError;
  const std::string nul("a\0sk-1", 6), shown = "a\uFFFD***";
  EXPECT_EQ(told<http::TimedOut>(http::TimedOut("a sk-1", 1), 1), "a ***");
  EXPECT_EQ(told<HttpFailure>(HttpFailure(nul, 8, nul), 8, shown), shown + ": " + shown);
  EXPECT_EQ(told<http::Retryable>(TransportError(nul, true)), shown);
  // The status of a proxy sorts the failure, and is not taken for the server's.
  EXPECT_EQ(told<HttpFailure>(TransportError("a", true, 407)), "request failed: a");
  EXPECT_EQ(told<http::Retryable>(TransportError("a", false, 503)), "a");
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
