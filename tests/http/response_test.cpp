#include <typeinfo>

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
      {"caf\xC3\xA9\u2028still\n", {"caf\xC3\xA9\u2028still"}},
      // The end of the body cuts a character; elsewhere bad bytes are left for their reader.
      {"a\ncaf\xC3", {"a", "caf"}},
      {"a\n\xF0\x9F\x98", {"a"}},
      {"a\xE2\x82\n", {"a\xE2\x82"}},
      {"a\xE0\x80", {"a\xE0\x80"}},
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
  const std::vector<std::string> pieces(5, "x");
  const auto lines = [](http::Response& reply) {
    while (reply.next_line()) {
    }
  };
  const auto limited = [&](http::Response& reply) {
    reply.limit_lines(0.02);
    std::this_thread::sleep_for(40ms);
    lines(reply);
  };
  const auto body = [](http::Response& reply) {
    std::this_thread::sleep_for(40ms);
    reply.read_rest(99);
  };
  EXPECT_THROW(play({.pieces = pieces}, lines, stops), http::Stopped);
  EXPECT_THROW(play({.pieces = pieces}, body, late), http::DeadlineExceeded);
  EXPECT_EQ(text_of<http::Retryable>([&] { play({.pieces = pieces}, limited); }),
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

template <class Read>
void post(Playback& transport, const std::string& url, const http::Headers& headers,
          const http::JsonObject& body, Read read) {
  http::send(
      url,
      {.policy = POLICY, .body = body, .headers = headers, .secrets = {}, .transport = &transport},
      read);
}

TEST(Send, RefusesRequestsThatAreNotSafeBeforeSendingThem) {
  const auto refused = [](const std::string& url, const http::Headers& headers,
                          const http::JsonObject& body) {
    Playback transport({Reply{}});
    auto text = text_of<http::HttpFailure>(
        [&] { post(transport, url, headers, body, [](http::Response&) {}); });
    EXPECT_TRUE(transport.requests().empty());
    EXPECT_FALSE(contains(text, "sk-1")) << text;
    return text;
  };
  const std::string with_nul("http://h\0sk-1", 13);
  for (const std::string& value : {std::string("sk-1\n"), std::string("sk-1\r\nX: y"), with_nul}) {
    EXPECT_TRUE(contains(refused("http://h", {{"X-Key", value}}, {}), "X-Key"));
  }
  refused("http://h", {{"bad name", "x"}}, {});
  refused(with_nul, {}, {});
  refused("http://h", {}, http::JsonObject().add("content", "sk-1 \xff"));
}

TEST(Send, SaysWhatCanBeDoneAboutAStatus) {
  const std::string failed = "request failed with HTTP ", busy = "the server answered HTTP ";
  const std::pair<Reply, std::string> cases[] = {
      {{400}, failed + "400 (the server rejected the request; see its message)"},
      {{401}, failed + "401 (check the API key)"},
      {{402}, failed + "402 (check the account's credit)"},
      {{403}, failed + "403 (the credential does not permit this; check it and the account)"},
      {{404}, failed + "404 (check the URL and the model name)"},
      {{405}, failed + "405 (check the URL)"},
      {{407}, failed + "407 (the proxy wants a user name and password; check the proxy variables)"},
      {{413}, failed + "413 (the request is too large; send less)"},
      {{418, {" say\n KEY-1"}}, failed + "418: say ***"},
      {{422}, failed + "422 (the server rejected the request; see its message)"},
      {{429, {"KEY-1"}},
       busy + "429 (the server limits the rate or the account; send requests less often, or "
              "later): ***"},
      {{500}, failed + "500 (the server failed; try again later)"},
      {{501}, failed + "501 (the server does not offer this)"},
      {{503}, busy + "503 (the server failed; try again later)"},
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

template <class Thrown>
struct Throwing final : http::Transport {
  explicit Throwing(Thrown thrown_in) : thrown(std::move(thrown_in)) {}

  std::unique_ptr<http::Exchange> open(http::Request, http::Watch&) override {
    throw Thrown(thrown);
  }

  Thrown thrown;
};

// What a caller gets of an error that a transport throws.
template <class Error, class Thrown>
void expect(const Thrown& thrown, int status, const std::string& text,
            const std::string& detail = "") {
  Throwing<Thrown> transport(thrown);
  try {
    http::get("http://h", {.policy = POLICY, .secrets = {"sk-1"}, .transport = &transport},
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
  expect<http::TimedOut>(http::TimedOut("a sk-1", 1), 1, "a ***");
  expect<http::Retryable>(http::Retryable("a sk-1", 2), 2, "a ***");
  expect<http::Exhausted>(http::Exhausted("a sk-1", 3), 3, "a ***");
  expect<http::Stopped>(http::Stopped("a sk-1", 4), 4, "a ***");
  expect<http::DeadlineExceeded>(http::DeadlineExceeded("a sk-1", 5), 5, "a ***");
  expect<http::Error>(http::Error("a sk-1", 6), 6, "a ***");
  using http::HttpFailure;
  using http::TransportError;
  expect<HttpFailure>(HttpFailure("a sk-1", 7, "b sk-1"), 7, "a ***: b ***", "b ***");
  const std::string nul("a\0b", 3), shown = "a\uFFFDb";
  expect<HttpFailure>(HttpFailure(nul, 8, nul), 8, shown + ": " + shown, shown);
  expect<http::Retryable>(TransportError(nul, true), 0, shown);
  // The status of a proxy sorts the failure, and is not taken for the server's.
  expect<HttpFailure>(TransportError("a sk-1", true, 407), 0, "request failed: a ***");
  expect<http::Retryable>(TransportError("a sk-1", false, 503), 0, "a ***");
}

TEST(Send, GivesBackOnlyConnectionsThatAreInGoodOrder) {
  Playback transport({Reply{.pieces = {"a\n", "b"}}});
  post(transport, "http://h", {{"content-type", "text/x"}}, {},
       [](http::Response& reply) { reply.next_line(); });
  EXPECT_EQ(transport.finished(), 1);
  EXPECT_THROW(post(transport, "http://h", {}, {}, [](http::Response&) { throw 7; }), int);
  EXPECT_EQ(transport.finished(), 1);
  EXPECT_EQ(transport.requests()[0].headers.count("Content-Type"), 0U);
  EXPECT_EQ(transport.requests()[0].headers.count("User-Agent"), 1U);
}

}  // namespace
