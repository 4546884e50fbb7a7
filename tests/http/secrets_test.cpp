#include <random>

#include "engines/http/quote.hpp"
#include "support.hpp"

namespace {

using namespace support;
using http::redact;

TEST(Redact, MasksEverySpelling) {
  const std::tuple<const char*, const char*, http::Secrets, const char*> cases[] = {
      // what, the text, the secrets, the result
      {"no secrets", "abc", {}, "abc"},
      {"an empty secret", "abc", {""}, "abc"},
      {"several times", "k1 and k1", {"k1"}, "*** and ***"},
      {"one inside another", "xabcdx", {"bc", "abcd"}, "x***x"},
      {"overlapping ones", "xabcdx", {"abc", "bcd"}, "x***x"},
      {"overlapping itself", "xabababx", {"abab"}, "x***x"},
      {"part of the mask", "a*b", {"*"}, "a[redacted]b"},
      {"part of two masks", "a*b", {"*", "e"}, "a#b"},
      {"part of every mask", "a*#eb", {"*", "e", "#"}, "ab"},
      {"joined around the mask", "aKEYb", {"KEY", "a***b"}, "a[redacted]b"},
      {"joined by removal", "*sk-#sk-11", {"*", "#", "e", "sk-1"}, ""},
      {"escaped slash", R"({"m":"a\/b"})", {"a/b"}, R"({"m":"***"})"},
      {"escaped letters", R"(\u0073k\u002d1)", {"sk-1"}, "***"},
      {"escaped quote", R"(q\"q)", {"q\"q"}, "***"},
      {"escaped twice", R"(s\\u006b\\/1)", {"sk/1"}, "***"},
      {"escaped pair", R"(\ud83d\ude00)", {"\U0001F600"}, "***"},
      {"no escape", R"(\x \u12 k1 \)", {"k1"}, R"(\x \u12 *** \)"},
  };
  for (const auto& [what, text, secrets, result] : cases) EXPECT_EQ(redact(text, secrets), result) << what;
}

// Small alphabets make every kind of overlap, nesting and joining likely.
TEST(Redact, LeavesNoSecretBehindWhateverTheyAre) {
  std::mt19937 random(7);
  const auto word = [&](std::size_t longest) {
    std::string text(random() % longest + 1, ' ');
    for (char& c : text) c = "ab*#\\/"[random() % 6];
    return text;
  };
  for (int round = 0; round < 20000; ++round) {
    const http::Secrets secrets{word(4), word(4), word(2)};
    const std::string text = word(30);
    const std::string result = redact(text, secrets);
    for (const std::string& secret : secrets) {
      ASSERT_FALSE(contains(result, secret)) << text << " -> " << result << ", " << secret;
    }
  }
}

TEST(Quote, IsOneCleanLineOfSoManyCharacters) {
  EXPECT_EQ(http::quote("  a\r\n\tb\x1b[2J\x7f  c\xc2\x85 ", {}, 99), "a b [2J c");
  EXPECT_EQ(http::quote("\xff\xe2\x82", {}, 99), "\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(http::quote("äöüß", {}, 3), "äöü");
  EXPECT_EQ(http::quote("KEY\nONE", {"KEY ONE"}, 99), "***");
}

TEST(SecretsOf, KnowsWhereCredentialsStand) {
  const http::Secrets secrets = http::secrets_of(
      {{"AUTHORIZATION", "bEaReR  tok-1 "}, {"Proxy-Authorization", "Basic dXNlcg=="}, {"X-Api-Key", "key-1"}, {"api-key", "key-2"}, {"Cookie", "a=crumb-1; b=crumb=2;"}, {"X-Auth-Token", "tok-2"}, {"Accept", "text/html"}});
  EXPECT_EQ(std::set(secrets.begin(), secrets.end()),
            (std::set<std::string>{"tok-1", "dXNlcg==", "key-1", "key-2", "crumb-1", "crumb=2", "tok-2"}));
  EXPECT_EQ(http::secrets_of({{"authorization", "raw-token"}}), http::Secrets{"raw-token"});
  EXPECT_EQ(http::secrets_of({{"authorization", "token abc"}}), http::Secrets{"abc"});
}

TEST(ErrorTexts, HoldNoSecretThatTheEngineItselfSays) {
  const std::pair<int, Json> cases[] = {{401, 0}, {503, 0}, {200, {{"the key", "\xff"}}}};
  for (const auto& [status, body] : cases) {
    Playback transport({Reply{.status = status}});
    const http::Secrets secrets{"key", "server"};
    const auto text = text_of<http::Error>([&, &body = body] {
      http::send("http://h", {.policy = POLICY, .body = body, .headers = {}, .secrets = secrets, .transport = &transport}, [](http::Response&) {});
    });
    EXPECT_TRUE(contains(text, "***") && !contains(text, "key") && !contains(text, "server")) << text;
  }
  EXPECT_EQ(http::quote("abcdefgh\\ud83d", {"abcdefgh\U0001F600x"}, 99), "***");
}

// Servers echo keys into error bodies; the place where the quotation is cut moves over the key here.
TEST(ErrorTexts, HoldNoKeyAndNoStartOfOne) {
  const std::string key = "sk-proj/abcDEF-0123456789_xyz";
  std::mt19937 random(11);
  const auto escaped = [&](const std::string& text) {
    std::string out;
    for (const char c : text) {
      char code[8];
      std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
      out += random() % 2 == 0 ? std::string(1, c) : c == '/' ? "\\/"
                                                              : code;
    }
    return out;
  };
  for (int round = 0; round < 1000; ++round) {
    std::string body(440 + random() % 80, round % 3 == 0 ? '\xe4' : 'x');
    for (auto echoes = random() % 4 + 1; echoes > 0; --echoes) {
      body += (random() % 2 == 0 ? key : escaped(key)) + (random() % 2 == 0 ? "" : " and ");
    }
    // Some replies break off in the middle of the key, or are cut there when they grow too long.
    if (round % 5 == 1) body.insert(0, std::string((1 << 16) - random() % 400, ' '));
    if (round % 5 == 2) body.resize(body.size() - random() % 40);
    const int status = round % 2 == 0 ? 401 : 503;
    try {
      play({.status = status, .pieces = {body}}, [](http::Response&) {}, POLICY, {key});
      ADD_FAILURE() << "no error";
    } catch (const http::Error& error) {
      ASSERT_FALSE(contains(error.what(), key.substr(0, 5))) << error.what();
    }
  }
}

}  // namespace
