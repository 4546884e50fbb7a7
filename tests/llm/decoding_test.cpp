// Whole bodies and streams, from text to result.

#include "engines/llm/reply/completion.hpp"
#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/stream.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "support.hpp"

namespace {

using namespace support;

TEST(Reasoning, IsRemovedOutsideCode) {
  const std::pair<const char*, const char*> cases[] = {
      {"<think>a</think>b</THINK> c </Think > d", "c </Think > d"},
      {"a</think>\n```\n</think>\n```", "```\n</think>\n```"},
      {"Intro <think>unfinished <think>reasoning", "Intro"},
      {"<think>a</think>Answer <think>b", "Answer <think>b"}};
  for (const auto& [content, answer] : cases)
    EXPECT_EQ(llm::_strip_reasoning(content), answer) << content;
}

TEST(Answer, LosesWhiteSpaceAtBothEnds) {
  for (const std::string space :
       {" ", "\t", "\n", "\v", "\f", "\r", "\x1c", "\x1f", "\u0085", "\u00A0", "\u1680", "\u2000",
        "\u200A", "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"}) {
    const std::string answer = std::string("x").append(space).append("y");
    const std::string twice = space + space;
    const std::string content = std::string(twice).append(answer).append(twice);
    EXPECT_EQ(llm::_strip_reasoning(content), answer) << answer;
  }
  for (const std::string mark : {"\x08", "\x0e", "\x1b", "\x7f", "\u180E", "\u200B", "\xA0"}) {
    const std::string content = std::string(mark).append(" x ").append(mark);
    EXPECT_EQ(llm::_strip_reasoning(content), content);
  }
}

TEST(Reasoning, TakesTimeInProportionToTheText) {
  // Each of these makes a careless search quadratic: it would take minutes.
  for (const char* const unit : {"</think>", "<think>", "```</think>", "`</think>`", "~~~ ` ",
                                 "`\n</think>", "<", "` ``` ~~~ </think>", "   "}) {
    std::string content = "~~~";
    while (content.size() < 2'000'000) content += unit;
    const auto start = http::Clock::now();
    EXPECT_LE(llm::_strip_reasoning(content + "</think>end").size(), content.size() + 11);
    EXPECT_LT(seconds_since(start), 30) << unit;
  }
}

TEST(AsInt, ConvertsWhatIsANumber) {
  const std::pair<const char*, std::int64_t> cases[] = {{"9.99", 9},
                                                        {"true", 1},
                                                        {"\"42\"", 42},
                                                        {"\" -3\\n\"", -3},
                                                        {"\"+5\"", 5},
                                                        {"9223372036854775807", INT64_MAX},
                                                        {"-9223372036854775808.0", INT64_MIN},
                                                        // 77 is what is fallen back to
                                                        {"\"4.2\"", 77},
                                                        {"\"+-5\"", 77},
                                                        {"null", 77},
                                                        {"9223372036854775808", 77},
                                                        {"9223372036854775808.0", 77},
                                                        {"-9223372036854775809", 77},
                                                        {"\"9223372036854775808\"", 77}};
  http::JsonReader reader;
  for (const auto& [text, number] : cases)
    EXPECT_EQ(llm::_as_int(reader.parse(text), 77), number) << text;
}

TEST(Completion, IsReadFromAWholeBody) {
  const std::pair<const char*, LLMResult> cases[] = {
      {R"({"choices":[{"message":false,"finish_reason":""}],"usage":[]})", {{"", "m", 0, 0, ""}}},
      {R"({"choices":[{"message":{"content":null},"finish_reason":null},{"message":{}}]})",
       {{"", "m"}}},
      {R"({"model":5,"choices":[{"message":{"content":"\ud83d \ud83d\ude00"},"finish_reason":7}]})",
       {{"\uFFFD \U0001F600", "5", 0, 0, "7"}}},
      {R"({"model":"x",
           "choices":[{"message":{"content":" <think>p</think>\n\nA "},"finish_reason":"length"}],
           "usage":{"prompt_tokens":"12","completion_tokens":1e999}})",
       {{"A", "x", 12, 0, "length"}}}};
  http::JsonReader reader;
  for (const auto& [text, result] : cases)
    EXPECT_EQ(llm::_parse_completion(reader.parse(text), "m"), result) << text;
}

TEST(Completion, FailsInWords) {
  const std::string malformed = "LLM response is malformed: ";
  const std::string check = "; check the URL and the model: ";
  const std::pair<std::string, std::string> cases[] = {
      {R"({"choices":[],"x":")" + std::string(3000, 'x') + "\"}",
       "LLM response missing 'choices': {\"choices\":[],\"x\":\"" + std::string(3000, 'x') + "\"}"},
      {R"({"error":"","detail":"x"})",
       R"(LLM response missing 'choices': {"error":"","detail":"x"})"},
      {R"({"choices":"x"})",
       malformed + "'choices' is not an array" + check + R"({"choices":"x"})"},
      {R"({"choices":[null],"error":"bad KEY-1"})",
       malformed + "the first of 'choices' is not an object" + check + "bad ***"},
      {R"({"choices":[{"message":"x"}]})",
       malformed + "'message' is not an object" + check + R"({"choices":[{"message":"x"}]})"},
      {R"({"choices":[{"message":{"content":[1]}}],"error":1})",
       malformed + "'content' is not a string" + check + "1"}};
  http::JsonReader reader;
  for (const auto& [text, told] : cases) {
    const auto payload = reader.parse(text);
    EXPECT_EQ(text_of<llm::LLMError>(
                  [&] { std::ignore = llm::_parse_completion(payload, "m", {"KEY-1"}); }),
              told);
  }
}

LLMResult decode(const std::vector<std::string>& events) {
  return play({.pieces = events},
              [](http::Response& reply) { return llm::_parse_sse_stream(reply, "m"); });
}

TEST(Stream, IsBoundedInLength) {
  for (const int first : {1, 8 << 20}) {  // an event is read otherwise if it is like a short one
    std::vector<std::string> events;
    for (int bytes = first; events.size() < 10; bytes = 8 << 20) {
      events.push_back(R"(data: {"choices":[{"delta":{"content":")" +
                       std::string(static_cast<std::size_t>(bytes), 'x') + "\"}}]}\n\n");
    }
    const auto text = text_of<llm::LLMError>([&] { std::ignore = decode(events); });
    EXPECT_TRUE(contains(text, "longer than 64 MiB")) << text;
  }
}

// The answer is that of the same stream with a number in each event, none of which is like another.
TEST(Stream, ReadsAnEventThatRepeatsTheLastOneLikeAnyOther) {
  const std::string usual = R"(,"model":"x","choices":[{"delta":{"content":"~"}}]})";
  const std::string other = R"(,"model":"y","choices":[{"delta":{"content":"~"}}]})";
  const std::string last = R"(,"choices":[{"delta":{"content":"~"},"finish_reason":"stop"}],)"
                           R"("usage":{"prompt_tokens":1}})";
  // An event, and what stands in it at the "~".
  const std::pair<std::string, std::vector<const char*>> parts[] = {
      {usual, {"a", "b", "", "\xc3\xbc", R"(\n\"\\\/\t)", "\"", "\\", "c\\", "d\x01", "?"}},
      {usual, {"e", "f", R"(g\u0041h)", "i", "j", R"(\ud83d)", R"(\ude00)", "k", "l"}},
      {usual, {R"(x","model":"z)", R"(m"}},{"delta":{"content":"n)", "o"}},
      {other, {"p"}},
      {usual, {"p"}},
      {other, {R"(\u0041)"}},
      {usual, {"q", "r"}},
      {R"(,"content":"~","choices":[{"delta":{"content":"s"}}]})", {"1", "2", "3"}},
      {R"(,"content":"~","choices":[{"delta":{"content":"?"}}]})", {"1", "2"}},
      {R"(,"choices":[{"delta":{"content":"~","content":"t"}}]})", {"1", "2", "3"}},
      {R"(,"choices":[{"delta":{"x\"content":"~","content" : "u"}}]})", {"1", "2", "3"}},
      {R"(,"choices":[{"delta":{"content" : "~"}},{"delta":{"content":"1"}}]})", {"v", "w"}},
      {last, {"x", "y"}},
      {R"(,"error":"no","choices":[{"delta":{"content":"~"}}]})", {"1", "2"}},
      {usual, {"z"}}};
  std::vector<std::string> repeated, varied;
  for (const auto& [event, texts] : parts) {
    for (const std::string text : texts) {
      std::string rest = event;
      rest.replace(rest.find('~'), 1, text).append("\n\n");
      repeated.push_back(R"(data: {"n":0)" + rest);
      varied.push_back(R"(data: {"n":)" + std::to_string(varied.size()) + rest);
      EXPECT_EQ(decode(repeated), decode(varied)) << rest;
    }
  }
  EXPECT_TRUE(decode(repeated).content().ends_with("tttuuuvwxyz")) << decode(repeated).content();
}

}  // namespace
