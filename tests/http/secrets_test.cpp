#include <bit>

#include <openssl/evp.h>

#include "support.hpp"
#include "text/quote.hpp"

namespace {

using namespace support;
using http::redact;

TEST(Redact, MasksEverySpelling) {
  const std::tuple<const char*, const char*, http::Secrets, const char*> cases[] = {
      // what, the text, the secrets, the result
      {"one inside another", "xabcdx", {"bc", "abcd"}, "x***x"},
      {"overlapping itself", "aabaaabaabaa-aaba", {"aabaa"}, "***-aaba"},
      {"part of the mask", "a*b", {"*"}, "a[redacted]b"},
      {"joined by removal", "*sk-#sk-11", {"*", "#", "e", "sk-1"}, ""},
      {"escaped slash", R"({"m":"a\/b"})", {"a/b"}, R"({"m":"***"})"},
      {"escaped pair", R"(\ud83d\ude00)", {"\U0001F600"}, "***"},
      {"in a URL, escaped twice, in JSON", "k%2F1 k%252f1 k%5C%2F1", {"k/1"}, "*** *** ***"},
      {"holding an escape itself",
       R"(a\/%41 a\/%2541 %61/%2541 a/%2525252541)",
       {"a/%41"},
       "*** *** *** ***"},
      {"in a URL, escaped four times, and five",
       "k%2525252F1 k%252525252F1",
       {"k/1"},
       "*** k%252525252F1"},
      {"no escape", R"(\x \u12 k1 k%3g \)", {"k1", "k@"}, R"(\x \u12 *** k%3g \)"},
  };
  for (const auto& [what, text, secrets, result] : cases)
    EXPECT_EQ(redact(text, secrets), result) << what;
}

TEST(Redact, MasksBase64OfEachAlignmentAndAlphabet) {
  const std::string secret = ">>>?>>>?>>>?>>>?>>>?";
  for (std::size_t before = 0; before < 3; ++before) {
    const std::string plain = std::string(before, 'x') + secret + "end";
    std::string coded(100, '\0');
    coded.resize(static_cast<std::size_t>(
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(coded.data()),
                        reinterpret_cast<const unsigned char*>(plain.data()), int(plain.size()))));
    for (const char* const specials : {"+/", "-_"}) {
      std::ranges::replace(coded, '+', specials[0]);
      std::ranges::replace(coded, '/', specials[1]);
      const std::string masked = redact(coded, {secret});
      EXPECT_TRUE(contains(masked, "***") && masked.size() < 14) << coded << " " << masked;
      EXPECT_EQ(redact(coded, {">>>?>>>"}), coded) << "too short a secret";
    }
  }
}

// A long text is searched in windows of 128 KiB: the border is at no special place.
TEST(Redact, FindsWhatStandsWhereWindowsMeet) {
  constexpr std::size_t WINDOW = 128U << 10U;
  std::string key = "k/1", token;
  while (token.size() < 4096) token += "t/" + std::to_string(token.size());
  std::string token_in_json;
  for (const char c : token) {
    std::array<char, 3> code{};
    std::snprintf(code.data(), code.size(), "%02x", static_cast<unsigned char>(c));
    token_in_json.append(R"(\u005c\u0075\u0030\u0030\u0032\u0035)").append(code.data());
  }
  const std::tuple<const char*, std::string, std::size_t> cases[] = {
      // what, a spelling, the bytes between the places where it is put
      {"in JSON in a URL", "%5Cu006b%5C%2F1", 1},
      {"a long one", token, 211},
      {"a long one, longer than a window", token_in_json, 5501}};
  for (const auto& [what, spelt, step] : cases) {
    const std::size_t first = WINDOW - std::min(spelt.size(), WINDOW / 2) - 9;
    for (std::size_t at = first; at < WINDOW + 9; at += step) {
      // Escapes of other characters beside it, so that each level of the text is a text of its own.
      const std::string after = "%25" + std::string(WINDOW / 2, 'y');
      const std::string before = std::string(at - 8, 'x').append(R"(%255C\\ )");
      std::string text = before;
      text.append(spelt).append(after);
      std::string masked = before;
      masked.append("***").append(after);
      ASSERT_EQ(redact(text, {key, token}), masked) << what << " at " << at;
    }
  }
  // Of n backslashes before a "u", 2^j make one once they have been undone j times; it is the
  // beginning of an escape where their number is odd then, and four levels are looked at.
  for (std::size_t n = WINDOW - 40; n < WINDOW + 40; ++n) {
    const std::string text = std::string(n, '\\') + "u006b/1";
    const int j = std::countr_zero(n);
    const std::string rest(j < 4 ? n - (std::size_t{1} << j) : n, '\\');
    ASSERT_EQ(redact(text, {key}), rest + (j < 4 ? "***" : "u006b/1")) << n;
  }
  EXPECT_EQ(redact(std::string(3 * WINDOW, 'a'), {"aaaa"}), "***");
}

TEST(Quote, IsOneCleanLineOfSoManyCharacters) {
  EXPECT_EQ(http::quote("  a\r\n\tb\x1b[2J\x7f  c\xc2\x85 ", {}, 99), "a b [2J c");
  EXPECT_EQ(http::quote("\xff\xe2\x82", {}, 99), "\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(http::quote("ä\U00100000üß", {}, 3), "ä\U00100000ü");
  EXPECT_EQ(http::quote("KEY\nONE", {"KEY ONE"}, 99), "***");
  EXPECT_EQ(http::quote("abcdefgh\\ud83d", {"abcdefgh\U0001F600x"}, 99), "***");
  for (const char* const cut : {"abcd/", "abcd%252f%25", "abcd/\\u00"})
    EXPECT_EQ(http::quote(cut, {"abcd/-"}, 99), "***") << cut;
  // Of a long text only the start is looked at. What it cuts shows no more than four characters.
  for (const char* const spelt : {"abcd/-", "abcd\\/-", "abcd%252F-"}) {
    for (std::size_t at = http::QUOTED_BYTES - 12; at < http::QUOTED_BYTES; ++at) {
      const std::string text = std::string(at, ' ') + spelt + std::string(99, 'x');
      const std::string quoted = http::quote(text, {"abcd/-"}, 99);
      const std::string start = quoted.substr(0, quoted.find_first_of("\\%"));
      EXPECT_TRUE(quoted.starts_with("***") || std::string("abcd").starts_with(start)) << quoted;
    }
  }
}

TEST(SecretsOf, KnowsWhereCredentialsStand) {
  const http::Secrets secrets = http::secrets_of({{"AUTHORIZATION", "bEaReR  tok-1 "},
                                                  {"Proxy-Authorization", "Basic dXNlcg=="},
                                                  {"X-Api-Key", "key-1"},
                                                  {"Ocp-Apim-Subscription-Key", "key-3"},
                                                  {"x-client-secret", "key-4"},
                                                  {"Cookie", "a=crumb-1; b=crumb=2;"},
                                                  {"X-Auth-Token", "tok-2"},
                                                  {"Accept", "text/html"}});
  EXPECT_EQ(std::set(secrets.begin(), secrets.end()),
            (std::set<std::string>{"tok-1", "dXNlcg==", "key-1", "key-3", "key-4", "crumb-1",
                                   "crumb=2", "tok-2"}));
  EXPECT_EQ(http::secrets_of({{"authorization", "raw-token"}}), http::Secrets{"raw-token"});
}

TEST(ErrorTexts, HoldNoSecretThatTheEngineItselfSays) {
  const std::pair<int, http::JsonObject> cases[] = {
      {401, {}}, {503, {}}, {200, http::JsonObject().add("the key", "\xff")}};
  for (const auto& [status, body] : cases) {
    Playback transport({Reply{.status = status}});
    const http::Secrets secrets{"key", "server"};
    auto options = over(transport, POLICY, secrets);
    options.body = body;
    const auto text =
        text_of<http::Error>([&] { http::send("http://h", options, [](http::Response&) {}); });
    EXPECT_TRUE(contains(text, "***") && !contains(text, "key") && !contains(text, "server"))
        << text;
  }
}

}  // namespace
