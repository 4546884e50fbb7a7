#include <numeric>

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
  struct Case {
    std::string body;
    Lines lines;
  };

  const Case cases[] = {
      {"", {}},
      {"a", {"a"}},
      {"a\nb\n", {"a", "b"}},
      {"a\r\nb\rc\n\nd", {"a", "b", "c", "", "d"}},
      {"\r\r\n\n\r", {"", "", "", ""}},
      {"\xEF\xBB\xBFx\n\xEF\xBB\xBFy", {"x", "\xEF\xBB\xBFy"}},
      {"caf\xC3\xA9\u2028still\n", {"caf\xC3\xA9\u2028still"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    EXPECT_EQ(lines_of({c.body}), c.lines);
    Lines bytes;
    for (const char byte : c.body) bytes.emplace_back(1, byte);
    EXPECT_EQ(lines_of(bytes), c.lines);
    for (std::size_t cut = 0; cut < c.body.size(); ++cut) {
      EXPECT_EQ(lines_of({c.body.substr(0, cut), c.body.substr(cut)}), c.lines) << cut;
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
  EXPECT_TRUE(contains(text_of<http::HttpFailure>([&] { lines_of(Lines(64, megabyte)); }),
                       "longer than 16 MiB"));
}

TEST(Send, TurnsEveryOutcomeIntoOneOfItsOwn) {
  const auto read = [](http::Response& reply) { return reply.read_rest(100); };
  EXPECT_EQ(play({.status = 204, .pieces = {"a", "b"}}, read), "ab");

  const auto retryable = [&](Reply reply) {
    return text_of<http::Retryable>(
        [&] { play(std::move(reply), read, POLICY, {"KEY-12345678"}); });
  };
  EXPECT_TRUE(contains(retryable({.status = 503, .pieces = {"be\nback"}}), "503"));
  EXPECT_TRUE(contains(retryable({.status = 503, .pieces = {"be\nback"}}), "be back"));
  EXPECT_EQ(retryable({.failure = http::TransportError("no KEY-12345678", true)}), "no ***");
  EXPECT_EQ(retryable({.pieces = {"a"}, .failure = http::TransportError("cut", true)}), "cut");
  // A reply that breaks off has told its status all the same.
  EXPECT_TRUE(contains(
      retryable({.status = 429, .pieces = {"slow"}, .failure = http::TransportError("cut", true)}),
      "slow"));

  const auto failure = [&](Reply reply) -> http::HttpFailure {
    try {
      play(std::move(reply), read, POLICY, {"KEY-12345678"});
    } catch (const http::HttpFailure& error) {
      EXPECT_FALSE(contains(error.what(), "KEY-1234")) << error.what();
      return error;
    }
    throw std::logic_error("no failure");
  };
  const auto refused = failure({.status = 400, .pieces = {"bad KEY-12345678"}});
  EXPECT_EQ(refused.status(), 400);
  EXPECT_EQ(refused.detail(), "bad ***");
  EXPECT_EQ(failure({.status = 404}).detail(), "");
  EXPECT_TRUE(contains(failure({.status = 302}).what(), "elsewhere.example"));
  EXPECT_EQ(failure({.failure = http::TransportError("tls", false)}).status(), std::nullopt);
  EXPECT_FALSE(failure({.pieces = {std::string(101, 'x')}}).status().has_value());
}

TEST(Send, RefusesRequestsThatAreNotSafeBeforeSendingThem) {
  const auto refused = [](const std::string& url, const http::Headers& headers, const Json& body) {
    Playback transport({Reply{}});
    const auto text = text_of<http::HttpFailure>([&] {
      http::send(url,
                 {.policy = POLICY,
                  .body = body,
                  .headers = headers,
                  .secrets = {},
                  .transport = &transport},
                 [](http::Response&) {});
    });
    EXPECT_TRUE(transport.requests.empty());
    EXPECT_FALSE(contains(text, "sk-1")) << text;
    return text;
  };
  const std::string with_nul("http://h\0sk-1", 13);
  for (const std::string& value : {std::string("sk-1\n"), std::string("sk-1\r\nX: y"), with_nul}) {
    EXPECT_TRUE(contains(refused("http://h", {{"X-Key", value}}, {}), "X-Key"));
  }
  refused("http://h", {{"bad name", "x"}}, {});
  refused(with_nul, {}, {});
  refused("http://h", {}, Json{{"content", "sk-1 \xff"}});
}

TEST(Send, GivesBackOnlyConnectionsThatAreInGoodOrder) {
  Playback transport({Reply{.pieces = {"a\n", "b"}}});
  const auto call = [&](auto read) {
    http::send("http://h",
               {.policy = POLICY,
                .body = {},
                .headers = {{"content-type", "text/x"}},
                .secrets = {},
                .transport = &transport},
               read);
  };
  call([](http::Response& reply) { reply.next_line(); });
  EXPECT_EQ(transport.finished, 1);
  EXPECT_THROW(call([](http::Response&) { throw 7; }), int);
  EXPECT_EQ(transport.finished, 1);
  EXPECT_EQ(transport.requests[0].headers.count("Content-Type"), 0U);
  EXPECT_EQ(transport.requests[0].headers.count("User-Agent"), 1U);
}

}  // namespace
