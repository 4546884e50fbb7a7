// A client library that misbehaves, and one that cannot be loaded. Which one it is, the search path
// of the process says, so ctest runs this program once for each.
#include <cstdlib>

#include <dlfcn.h>

#include "support.hpp"

namespace {

using namespace support;

LLMResult ask(const std::string& model, bool stream, bool json = false, const std::string& url = "http://h") {
  const LLMClient client({.base_url = url, .model = model, .api_key = "sk-KEY-1", .timeout_s = 7, .stream = stream},
                         {.wait = [](double, auto&, auto) {}});
  return client.chat({}, {.response_json = json});
}

TEST(Library, MayFailInEveryWay) {
  struct Case {
    const char* model;
    bool stream;
    const char* told;  // an error's text; null: an answer
    LLMResult answer{{"", ""}};
    int clients = 1;
    bool json = false;
    const char* url = "http://h/";
  };

  const Case cases[] = {
      {"arguments", true, "call failed: http://h/ 7.000000 0 stream options json", {{"", ""}}, 1, true},
      {"arguments", false, "call failed: http://h/ 7.000000 0"},
      {"foreign", true, "LLM SDK call failed: foreign ***"},
      {"unknown", true, "call failed: the OpenAI client library raised an error of an unknown kind"},
      {"501", false, "LLM call failed after 3 attempts; last failure: 501 ***", {{"", ""}}, 3},
      {"timeout", true, "LLM call failed after 3 attempts; last failure: late", {{"", ""}}, 3},
      {"rejects all", true, "call failed: no response_format, no streams", {{"", ""}}, 3, true},
      {"null stream", true, "call failed: the OpenAI client library gave another kind of reply"},
      {"wrong kind", true, "call failed: the OpenAI client library gave another kind of reply"},
      {"no choices", false, "LLM SDK response missing 'choices': all of ***"},
      {"empty choices", false, "LLM SDK response missing 'choices': all of ***"},
      {"no message", false, "call failed: the first choice of the reply has no message"},
      {"breaks", true, "LLM call failed after 3 attempts; last failure: broken ***", {{"", ""}}, 3},
      {"breaks oddly", true, "call failed: the OpenAI client library raised"},
      {"m", true, "made no client", {{"", ""}}, 0, false, "http://no.client"},
      {"nulls", false, nullptr, {{"", "nulls"}}},
      {"numbers", false, nullptr, {{"2.5", "5", 7, 0, "true"}}},
      {"no delta", true, nullptr, {{"Hello", "x", 7, 8, "stop"}}},
      {"plain", true, nullptr, {{"Hello", "plain"}}}};
  void* const library = dlopen(FAKE_LIBRARY, RTLD_LAZY);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto counts = reinterpret_cast<void (*)(int*, int*)>(dlsym(library, "fake_counts"));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.model);
    int before = 0, opened = 0, closed = 0;
    counts(&before, &closed);
    if (c.told == nullptr) {
      EXPECT_EQ(ask(c.model, c.stream, c.json, c.url), c.answer);
    } else {
      const auto text = text_of<llm::LLMError>([&] { std::ignore = ask(c.model, c.stream, c.json, c.url); });
      EXPECT_TRUE(text.starts_with("LLM ") && contains(text, c.told)) << text;
    }
    counts(&opened, &closed);
    EXPECT_EQ(opened - before, c.clients);
    EXPECT_EQ(opened, closed);
  }
}

TEST(Loader, TellsWhyALibraryCannotBeUsed) {
  ASSERT_TRUE(llm::_openai_available());
  for (int i = 0; i < 2; ++i) {  // a failure is not remembered, and not worse the second time
    const auto text = text_of<llm::LLMError>([] { std::ignore = ask("m", true); });
    EXPECT_TRUE(contains(text, std::getenv("EXPECTED_TEXT")) && contains(text, "libtovren_openai.so")) << text;
  }
}

TEST(Loader, SearchesNoFolderThatAnybodyCouldFill) {
  EXPECT_FALSE(llm::_openai_available());
}

}  // namespace
