// Whole bodies and streams, from text to result.

#include "engines/llm/reply/completion.hpp"
#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "engines/llm/stream/sse.hpp"
#include "support.hpp"

namespace {

using namespace support;

TEST(Reasoning, IsRemovedOutsideCode) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},
      {"  plain answer \n", "plain answer"},
      {"\u3000\u00A0\u2028x\u2003y\u0085\x1f", "x\u2003y"},
      {"<think>reasoning</think>\n\nThe answer.", "The answer."},
      {"<THINK>x</Think> Answer", "Answer"},
      {"a</think>b</think>c", "c"},
      {"Intro <think>unfinished <think>reasoning", "Intro"},
      {"<think>unfinished", ""},
      {"<think>a</think>Answer <think>b", "Answer <think>b"},
      {"Use `</think>` to close.", "Use `</think>` to close."},
      {"```\n<think>\n```\nAnswer ", "```\n<think>\n```\nAnswer"},
      {"~~~\n</think>\n~~~\nAnswer", "~~~\n</think>\n~~~\nAnswer"},
      {"`a\n</think>b`", "b`"},
      {"`a\r</think>b`", "`a\r</think>b`"},
      {"<think>see ```x</think>Answer ``` done", ""},
      {"`x`</think>y", "y"},
      {"```</think>y", "y"},                  // no closing fence: "``" is code, the rest is not
      {"~~~</think>`<think>`", "`<think>`"},  // no closing fence of tildes either
      {"<think`>`</think>z", "z"},
      {"`</think`>z</think>w", "w"},
      {"\xff`</think>`\xfe", "\xff`</think>`\xfe"},  // bytes that are no text beside a span
      {"<thin</think", "<thin</think"}};
  for (const auto& [content, answer] : cases) EXPECT_EQ(llm::_strip_reasoning(content), answer) << content;
  EXPECT_EQ(llm::_tag_positions("<think>`<think>`<THINK>", "<think>"), (std::vector<std::size_t>{0, 16}));
}

TEST(Reasoning, TakesTimeInProportionToTheText) {
  // Each of these makes a careless search quadratic: sixteen times the time for four times the text.
  const auto seconds = [](const std::string& content) {
    const auto start = http::Clock::now();
    EXPECT_LE(llm::_strip_reasoning(content + "</think>end").size(), content.size() + 11);
    return seconds_since(start);
  };
  for (const char* const unit : {"</think>", "<think>", "```</think>", "`</think>`", "~~~ ` ", "`\n</think>", "<",
                                 "` ``` ~~~ </think>", "   "}) {
    std::string content = "~~~";
    while (content.size() < 2'000'000) content += unit;
    const double part = seconds(content.substr(0, 500'000));
    EXPECT_LT(seconds(content), 10 * part + 0.1) << unit;
  }
}

TEST(AsInt, ConvertsWhatIsANumber) {
  const std::pair<const char*, std::int64_t> cases[] = {
      {"9.99", 9}, {"-7.9", -7}, {"true", 1}, {"false", 0}, {"\"42\"", 42}, {"\" -3\\n\"", -3}, {"\"+5\"", 5}, {"9223372036854775807", INT64_MAX}, {"-9223372036854775808", INT64_MIN}, {"-9223372036854775808.0", INT64_MIN},
      // 77 is what is fallen back to
      {"\"4.2\"", 77},
      {"\"1e3\"", 77},
      {"\"\"", 77},
      {"\"+-5\"", 77},
      {"\"5 5\"", 77},
      {"null", 77},
      {"[1]", 77},
      {"{}", 77},
      {"9223372036854775808", 77},
      {"1e19", 77},
      {"1e999", 77},
      {"\"9223372036854775808\"", 77}};
  http::JsonReader reader;
  for (const auto& [text, number] : cases) EXPECT_EQ(llm::_as_int(reader.parse(text), 77), number) << text;
  EXPECT_EQ(llm::_as_int(http::JsonValue()), 0);
}

TEST(Completion, IsReadFromAWholeBody) {
  const std::pair<const char*, LLMResult> cases[] = {
      {R"({"choices":[{"message":{"content":null}}]})", {"", "m"}},
      {R"({"choices":[{}]})", {"", "m"}},
      {R"({"choices":[{"message":false,"finish_reason":""}],"usage":[]})", {"", "m", 0, 0, ""}},
      {R"({"model":"","choices":[{"message":{"content":"hi"}},{"message":{"content":"2"}}]})", {"hi", "m"}},
      {R"({"model":5,"choices":[{"message":{"content":"\ud83d \ud83d\ude00"},"finish_reason":7}]})",
       {"\uFFFD \U0001F600", "5", 0, 0, "7"}},
      {R"({"model":"x","choices":[{"message":{"content":" <think>p</think>\n\nA "},"finish_reason":"length"}],
           "usage":{"prompt_tokens":"12","completion_tokens":1e999}})",
       {"A", "x", 12, 0, "length"}}};
  http::JsonReader reader;
  for (const auto& [text, result] : cases) EXPECT_EQ(llm::_parse_completion(reader.parse(text), "m"), result) << text;
}

TEST(Completion, FailsInWords) {
  const std::string check = "; check the URL and the model: ";
  const std::pair<const char*, std::string> cases[] = {
      {"[]", "LLM response is not a JSON object"},
      {"null", "LLM response is not a JSON object"},
      {R"({"choices":[]})", R"(LLM response missing 'choices': {"choices":[]})"},
      {R"({"error":{"message":"bad KEY-1"}})", R"(LLM response missing 'choices': {"message":"bad ***"})"},
      {R"({"error":"no","choices":null})", "LLM response missing 'choices': no"},
      {R"({"error":"","detail":"x"})", R"(LLM response missing 'choices': {"error":"","detail":"x"})"},
      {R"({"choices":"x"})", "LLM response is malformed: 'choices' is not an array" + check + R"({"choices":"x"})"},
      {R"({"choices":[null],"error":"bad KEY-1"})", "LLM response is malformed: the first of 'choices' is not an object" + check + "bad ***"},
      {R"({"choices":[{"message":"x"}]})", "LLM response is malformed: 'message' is not an object" + check + R"({"choices":[{"message":"x"}]})"},
      {R"({"choices":[{"message":{"content":[1]}}]})", "LLM response is malformed: 'content' is not a string" + check + R"({"choices":[{"message":{"content":[1]}}]})"}};
  http::JsonReader reader;
  for (const auto& [text, told] : cases) {
    const auto payload = reader.parse(text);
    EXPECT_EQ(text_of<llm::LLMError>([&] { std::ignore = llm::_parse_completion(payload, "m", {"KEY-1"}); }), told);
  }
}

using ClockReading = std::function<http::Clock::time_point()>;

LLMResult decode(const std::vector<std::string>& pieces, double timeout_s = 0, ClockReading clock = http::Clock::now) {
  const http::Secrets secrets{"KEY-1"};
  return play({.pieces = pieces}, [&](http::Response& reply) {
    return llm::_parse_sse_stream(reply, "m", {timeout_s, secrets, clock});
  });
}

std::string event(const std::string& json) {
  return "data: " + json + "\n";
}

std::string delta(const std::string& content) {
  return event(R"({"choices":[{"delta":{"content":)" + content + "}}]}") + "\n";
}

const std::string A = delta("\"a\"");
const std::string DONE = "data: [DONE]\n\n";
const std::string STOP = "data: {\"choices\":[{\"finish_reason\":\"stop\"}]}\n";

TEST(Stream, GathersWhatItsEventsSay) {
  const std::tuple<const char*, std::string, LLMResult> cases[] = {
      {"two deltas", delta("\"Hel\"") + delta("\"lo\"") + DONE, {"Hello", "m"}},
      {"an error that a finish reason outweighs", A + event(R"({"error":"late"})") + STOP, {"a", "m", 0, 0, "stop"}},
      {"reasoning over several events", delta("\"<think>pla\"") + delta("\"n</think>He\"") + delta("\"llo\""), {"Hello", "m"}},
      {"half a character in each delta", delta(R"("x\ud83d")") + delta(R"("\ude00\ud83d")") + A, {"x\U0001F600\uFFFDa", "m"}},
      {"a number out of range", event(R"({"created":1e999,"choices":[{"delta":{"content":"a"}}]})"), {"a", "m"}}};
  for (const auto& [what, body, result] : cases) EXPECT_EQ(decode({body}), result) << what;
}

TEST(Stream, AsksForAnotherAttemptWhenItBreaksOff) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "empty stream (no content received)"},
      {DONE, "empty stream (no content received)"},
      {delta("\"<think>still thinking\""), "empty stream (no content received)"},
      {A + "data: {\"error\":\"overloaded\"}\n", "stream error: overloaded"},
      {"data: {\"error\":{\"message\":\"bad KEY-1\",\"code\":429}}\n", "stream error: bad ***"},
      {"data: {\"error\":{\"code\":429}}\n", "stream error: {\"code\":429}"},
      {"data: {\"error\":{\"message\":\"\"}}\n", "stream error: {\"message\":\"\"}"},
      {"data: {\"error\":1}\ndata: {\"error\":503}\ndata: {\"error\":{}}\n", "stream error: 503"}};
  for (const auto& [body, told] : cases) {
    EXPECT_EQ(text_of<http::Retryable>([&, &text = body] { std::ignore = decode({text}); }), told);
  }
}

TEST(Stream, IsBoundedInLength) {
  const std::vector<std::string> pieces(9, delta('"' + std::string(8 << 20, 'x') + '"'));
  EXPECT_TRUE(contains(text_of<llm::LLMError>([&] { std::ignore = decode(pieces); }), "longer than 64 MiB"));
}

TEST(Stream, IsBoundedInTime) {
  auto now = http::Clock::time_point{} + 1h;
  const auto decode_at = [&](double timeout_s, std::chrono::milliseconds step) {
    return decode({": a\n" + A + DONE}, timeout_s, [&] { return std::exchange(now, now + step); });
  };
  // Four lines are read, so the last comes four steps after the start; only later is too late.
  EXPECT_EQ(decode_at(4, 1s).content, "a");
  EXPECT_THROW(std::ignore = decode_at(3.9, 1s), http::Retryable);
  EXPECT_THROW(std::ignore = decode_at(-1, 0s), http::Retryable);
  EXPECT_EQ(decode_at(0, 24h).content, "a");
}

}  // namespace
