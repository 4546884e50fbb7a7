#include "engines/http/quote.hpp"
#include "support.hpp"

namespace {

using namespace support;
using http::redact;

TEST(Redact, MasksEverySpelling) {
  const std::tuple<const char*, const char*, http::Secrets, const char*> cases[] = {
      // what, the text, the secrets, the result
      {"one inside another", "xabcdx", {"bc", "abcd"}, "x***x"},
      {"overlapping ones", "xabcdx", {"abc", "bcd"}, "x***x"},
      {"part of the mask", "a*b", {"*"}, "a[redacted]b"},
      {"part of every mask", "a*#eb", {"*", "e", "#"}, "ab"},
      {"joined around the mask", "aKEYb", {"KEY", "a***b"}, "a[redacted]b"},
      {"joined by removal", "*sk-#sk-11", {"*", "#", "e", "sk-1"}, ""},
      {"escaped slash", R"({"m":"a\/b"})", {"a/b"}, R"({"m":"***"})"},
      {"escaped pair", R"(\ud83d\ude00)", {"\U0001F600"}, "***"},
      {"in a URL, escaped twice, in JSON", "k%2F1 k%252f1 k%5C%2F1", {"k/1"}, "*** *** ***"},
      {"no escape", R"(\x \u12 k1 %2g \)", {"k1"}, R"(\x \u12 *** %2g \)"},
  };
  for (const auto& [what, text, secrets, result] : cases) EXPECT_EQ(redact(text, secrets), result) << what;
}

TEST(Quote, IsOneCleanLineOfSoManyCharacters) {
  EXPECT_EQ(http::quote("  a\r\n\tb\x1b[2J\x7f  c\xc2\x85 ", {}, 99), "a b [2J c");
  EXPECT_EQ(http::quote("\xff\xe2\x82", {}, 99), "\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(http::quote("äöüß", {}, 3), "äöü");
  EXPECT_EQ(http::quote("KEY\nONE", {"KEY ONE"}, 99), "***");
  for (const char* const cut : {"abcd/", "abcd\\/", "abcd%2F%2", "abcd%252f%25", "abcd/\\u00"}) EXPECT_EQ(http::quote(cut, {"abcd/-"}, 99), "***") << cut;
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

}  // namespace
