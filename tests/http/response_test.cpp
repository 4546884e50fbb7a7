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
      {"", {}}, {"a", {"a"}}, {"a\nb\n", {"a", "b"}}, {"a\r\nb\rc\n\nd", {"a", "b", "c", "", "d"}}, {"\r\r\n\n\r", {"", "", "", ""}}, {"\xEF\xBB\xBFx\n\xEF\xBB\xBFy", {"x", "\xEF\xBB\xBFy"}}, {"caf\xC3\xA9\u2028still\n", {"caf\xC3\xA9\u2028still"}}};
  for (const auto& [body, lines] : cases) {
    Lines bytes;
    for (const char byte : body) bytes.emplace_back(1, byte);
    EXPECT_EQ(lines_of(bytes), lines) << body;
    EXPECT_EQ(lines_of({body}), lines) << body;
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
  const auto too_long = [&] { lines_of(Lines(64, megabyte)); };
  EXPECT_TRUE(contains(text_of<http::HttpFailure>(too_long), "longer than 16 MiB"));
}

TEST(Send, TurnsEveryOutcomeIntoOneOfItsOwn) {
  const http::TransportError cut("cut by KEY-12345678", true);
  const http::TransportError untrusted("untrusted", false);

  const std::tuple<Reply, bool, std::optional<int>, const char*> cases[] = {
      // the reply, whether another try may help, the status and the text of the error
      {{.status = 503, .pieces = {"be\nback"}}, true, 503, "be back"},
      {{.status = 429, .pieces = {"slow"}, .failure = cut}, true, 429, "slow"},  // its status was told before
      {{.pieces = {"a"}, .failure = cut}, true, std::nullopt, "cut by ***"},
      {{.failure = cut}, true, std::nullopt, "cut by ***"},
      {{.failure = untrusted}, false, std::nullopt, "untrusted"},
      {{.status = 400, .pieces = {"bad KEY-12345678"}}, false, 400, "bad ***"},
      {{.status = 404}, false, 404, "check the URL"},
      {{.status = 302, .location = "https://x/KEY-12345678"}, false, 302, "https://x/***"},
      {{.pieces = {std::string(101, 'x')}}, false, std::nullopt, "larger than 100 bytes"}};
  const auto read = [](http::Response& reply) { return reply.read_rest(100); };
  EXPECT_EQ(play({.status = 204, .pieces = {"a", "b"}}, read), "ab");
  for (const auto& [reply, transient, status, told] : cases) {
    try {
      play(reply, read, POLICY, {"KEY-12345678"});
      ADD_FAILURE() << "no error: " << told;
    } catch (const http::Retryable& error) {
      EXPECT_TRUE(transient && error.status() == status && contains(error.what(), told)) << error.what();
    } catch (const http::HttpFailure& error) {
      EXPECT_TRUE(!transient && error.status() == status && contains(error.what(), told)) << error.what();
      EXPECT_TRUE(error.detail().empty() == reply.pieces.empty() || !status) << error.detail();
    }
  }
}

template <class Read>
void post(Playback& transport, const std::string& url, const http::Headers& headers, const Json& body, Read read) {
  http::send(url, {.policy = POLICY, .body = body, .headers = headers, .secrets = {}, .transport = &transport}, read);
}

TEST(Send, RefusesRequestsThatAreNotSafeBeforeSendingThem) {
  const auto refused = [](const std::string& url, const http::Headers& headers, const Json& body) {
    Playback transport({Reply{}});
    auto text = text_of<http::HttpFailure>([&] { post(transport, url, headers, body, [](http::Response&) {}); });
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
  post(transport, "http://h", {{"content-type", "text/x"}}, {}, [](http::Response& reply) { reply.next_line(); });
  EXPECT_EQ(transport.finished, 1);
  EXPECT_THROW(post(transport, "http://h", {}, {}, [](http::Response&) { throw 7; }), int);
  EXPECT_EQ(transport.finished, 1);
  EXPECT_EQ(transport.requests[0].headers.count("Content-Type"), 0U);
  EXPECT_EQ(transport.requests[0].headers.count("User-Agent"), 1U);
}

}  // namespace
