#include "tovren_mapstead/engines/http/json.hpp"

#include <cmath>
#include <limits>

#include "support.hpp"

namespace {

using namespace support;
using http::JsonReader;

TEST(JsonReader, ReadsWhateverIsJson) {
  const std::pair<const char*, const char*> cases[] = {
      // the text, and what its member `a` says; null: it is not JSON
      {R"({"\u0061":"escaped name"})", "escaped name"},
      {"{\"a\":\"\\ud83d\uFFFF\uE03D\"}", "\uFFFD\uFFFF\uE03D"},
      {R"({"a":"\ud83d\uFFFF\ud83e"})", "\uFFFD\uFFFF\uFFFD"},
      {R"({"a":"1","a":"\u0032"})", "2"},
      {R"({"z":"\ud83d","a":[1,"\ude00"]})", "[1,\"\uFFFD\"]"},
      {R"({"a":1e999})", "1e999"},
      {R"({"a":-123456789012345678901234567890})", "-123456789012345678901234567890"},
      {R"({"z":"say \"1e999","a":12e2})", "1200.0"},
      {R"({"a":01})", nullptr},
      {R"({"a":1e999,"b":-})", nullptr},
      {"{\"a\":\"\xff\"}", nullptr},
      {"", nullptr}};
  JsonReader reader;  // one for all: what is left of one text must not show in the next
  for (const auto& [text, member] : cases) {
    const auto value = reader.parse(text);
    ASSERT_EQ(value.present(), member != nullptr) << text;
    EXPECT_EQ(value["a"].text(), member != nullptr ? member : "") << text;
  }
}

TEST(JsonReader, TellsWhatIsEmpty) {
  JsonReader reader;
  // Read in a text that had to be mended, too small a number is still 0.
  for (const std::string& small :
       {std::string("1e-400"), std::string("-0.01e-99999999999999999999"),
        "0." + std::string(400, '0') + "1"}) {
    EXPECT_TRUE(reader.parse("[" + small + R"(,"\ud83d"])").front().empty()) << small;
  }
  EXPECT_FALSE(reader.parse("[1e999," + std::string(2'000'000, '0') + "]")
                   .present());  // minutes, if looked at twice
  EXPECT_TRUE(reader.parse("[[7]]").front().front()["x"].empty());
}

TEST(ReadJson, TellsACutBodyFromAWrongOne) {
  const auto read = [](http::Response& reply) {
    return http::read_json(reply, POLICY, {"KEY-1"})["a"].text();
  };
  EXPECT_EQ(play({.pieces = {"\xEF\xBB\xBF{\"a\"", ":\"b\"} \n"}}, read), "b");
  for (const char* const cut : {"", "{\"a\":tr", "{\"a\":\"\\ud83d\",\"b"}) {
    EXPECT_EQ(text_of<http::Retryable>([&] { play({.pieces = {cut}}, read); }),
              "reply breaks off in the middle of its JSON")
        << cut;
  }
  const auto deep = text_of<http::HttpFailure>(
      [&] { play({.pieces = {std::string(1100, '[') + std::string(1100, ']')}}, read); });
  EXPECT_TRUE(deep.starts_with("request failed: the JSON of the reply is nested too deeply: [["))
      << deep;
  for (const std::string wrong :
       {"<html>KEY-1</html>", "{\"a\":1} KEY-1", R"({"KEY-1":1e999:1})"}) {
    const auto text = text_of<http::HttpFailure>([&] { play({.pieces = {wrong}}, read); });
    EXPECT_TRUE(text.starts_with("request failed: the reply is not JSON; check that") &&
                contains(text, "***"))
        << text;
  }
}

TEST(JsonObject, IsReadBackAsItWasWritten) {
  std::string every_byte;
  for (int c = 1; c < 0x80; ++c) every_byte += static_cast<char>(c);
  std::string text = std::string(1, '\0') + "\u2028\U0001F600";
  for (std::size_t i = 0; i < 20; ++i)
    text += every_byte + std::string(i, '-');  // in every position
  http::JsonObject object;
  object.add("z", text).begin_array("a").add("", 1).add("", -2).add("", 5e-324).add("", true);
  object.begin_object().add("", text).end().begin_array().end().end();
  object.add("n", std::numeric_limits<std::uint64_t>::max())
      .begin_object("left open")
      .add("b", 0.2);
  const Json expected{{"z", text},
                      {"a", {1, -2, 5e-324, true, {{"", text}}, Json::array()}},
                      {"n", std::numeric_limits<std::uint64_t>::max()},
                      {"left open", {{"b", 0.2}}}};
  EXPECT_EQ(Json::parse(std::move(object).text()), expected);
  http::JsonObject reals;
  reals.add("b", 0.0).add("a", -0.0).add("c", 0.2).add("d", 1e22);
  EXPECT_EQ(std::move(reals).text(), R"({"b":0.0,"a":-0.0,"c":0.2,"d":1e+22})");
}

TEST(JsonObject, NamesWhatNoServerCouldRead) {
  http::JsonObject text, name, number;
  text.begin_array("m").begin_object().end().begin_object().add("content", "SECRET\xff");
  name.add("SECRET\xff", 1);
  number.begin_object("o").add("t", std::nan("")).add("u", "\xff");
  EXPECT_EQ(text.fault(), "text that is not valid UTF-8 at /m/1/content");
  EXPECT_EQ(name.fault(), "a name that is not valid UTF-8 at /?");
  EXPECT_EQ(number.fault(), "a number that is not finite at /o/t");
  EXPECT_EQ(std::move(number).text(), "");
}

}  // namespace
