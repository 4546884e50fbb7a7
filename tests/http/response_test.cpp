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
      {"a", {"a"}},
      {"a\nb\n", {"a", "b"}},
      {"a\r\nb\rc\n\nd", {"a", "b", "c", "", "d"}},
      {"\r\r\n\n\r", {"", "", "", ""}},
      {"\xEF\xBB\xBFx\n\xEF\xBB\xBFy", {"x", "\xEF\xBB\xBFy"}},
      {"caf\xC3\xA9\u2028still\n", {"caf\xC3\xA9\u2028still"}}};
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
