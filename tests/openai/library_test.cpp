// A client library that misbehaves, and one that cannot be loaded. Which one it is, the search path
// of the process says, so ctest runs this program once for each.
#include <dlfcn.h>

#include <cstdlib>

#include "engines/llm/stream/chunks.hpp"
#include "support.hpp"
#include "tovren_mapstead/engines/llm.hpp"

namespace {

using namespace support;
namespace llm = tovren_mapstead::engines::llm;
namespace openai = tovren_mapstead::openai;

llm::LLMClient client(const std::string& model, bool stream, const std::string& base_url = "http://h/v1/") {
  return llm::LLMClient({.base_url = base_url, .model = model, .api_key = "sk-KEY-1", .timeout_s = 7, .stream = stream},
                        {.wait = [](double, const auto&, auto) {}});
}

TEST(Library, MayFailInEveryWay) {
  struct Case {
    const char* model;
    bool stream, json;
    int clients;
    const char* told;  // an error's text; null: an answer
    llm::LLMResult answer{"", ""};
  };
  const Case cases[] = {
      {"arguments", true, true, 1, "LLM SDK call failed: http://h/v1/ 7.000000 0 11json_object"},
      {"arguments", false, false, 1, "LLM SDK call failed: http://h/v1/ 7.000000 0 00"},
      {"foreign", true, false, 1, "LLM SDK call failed: foreign ***"},
      {"unknown", true, false, 1, "LLM SDK call failed: the OpenAI client library raised an error of an unknown kind"},
      {"501", false, false, 3, "LLM call failed after 3 tries; last failure: 501 ***"},
      {"timeout", true, false, 3, "LLM call failed after 3 tries; last failure: late"},
      {"rejects all", true, true, 3, "LLM SDK call failed: no response_format, no streams"},
      {"null stream", true, false, 1, "LLM SDK call failed: the OpenAI client library gave another kind"},
      {"wrong kind", true, false, 1, "LLM SDK call failed: the OpenAI client library gave another kind"},
      {"wrong kind", false, false, 1, "LLM SDK call failed: the OpenAI client library gave another kind"},
      {"no choices", false, false, 1, "LLM SDK response missing 'choices': all of ***"},
      {"empty choices", false, false, 1, "LLM SDK response missing 'choices': all of ***"},
      {"no message", false, false, 1, "LLM SDK call failed: the first choice of the reply has no message"},
      {"nulls", false, false, 1, nullptr, {"", "nulls"}},
      {"numbers", false, false, 1, nullptr, {"2.5", "5", 7, 0, "true"}},
      {"breaks", true, false, 3, "LLM call failed after 3 tries; last failure: broken ***"},
      {"breaks in an unknown way", true, false, 1, "LLM SDK call failed: the OpenAI client library raised"},
      {"no delta", true, false, 1, nullptr, {"Hello", "x", 7, 8, "stop"}},
      {"plain", true, false, 1, nullptr, {"Hello", "plain"}},
  };
  void* const library = dlopen(FAKE_LIBRARY, RTLD_LAZY);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto counts = reinterpret_cast<void (*)(int*, int*)>(dlsym(library, "fake_counts"));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.model);
    int opened = 0, closed = 0, opened_before = 0;
    counts(&opened_before, &closed);
    const auto act = [&] { return client(c.model, c.stream).chat({}, {.response_json = c.json}); };
    if (c.told == nullptr) {
      EXPECT_EQ(act(), c.answer);
    } else {
      const auto text = text_of<llm::LLMError>([&] { std::ignore = act(); });
      EXPECT_TRUE(text.starts_with(c.told)) << text;
    }
    counts(&opened, &closed);
    EXPECT_EQ(opened - opened_before, c.clients);
    EXPECT_EQ(opened, closed);
  }
  EXPECT_TRUE(contains(text_of<llm::LLMError>([] { std::ignore = client("m", true, "http://no.client").chat({}); }),
                       "made no client"));
  // Nothing of the library's error travels on inside the client's.
  try {
    std::ignore = client("foreign", true).chat({});
  } catch (const llm::LLMError& error) {
    EXPECT_EQ(dynamic_cast<const std::nested_exception*>(&error), nullptr);
  }
}

TEST(Library, IsBoundedInTimeWhenAChunkHasCome) {
  class Slow final : public openai::ChunkStream {
   public:
    std::optional<openai::Chunk> next() override {
      if (_left-- == 0) return std::nullopt;
      return openai::Chunk{.model = {}, .choices = std::vector{openai::ChunkChoice{openai::Message{"a"}, {}}}, .usage = {}, .text = {}};
    }

   private:
    int _left = 2;
  };
  auto now = http::Clock::time_point{} + 1h;
  const auto content = [&](double timeout_s) {
    Slow stream;
    return llm::_accumulate_sdk_stream(stream, "m", timeout_s, [&] { return now += 500ms; }).content;
  };
  EXPECT_EQ(content(1.0), "aa");  // the last chunk comes a second after the start, the end later
  EXPECT_THROW(content(0.9), http::Retryable);
  EXPECT_EQ(content(0), "aa");
}

TEST(Loader, TellsWhyALibraryCannotBeUsed) {
  ASSERT_TRUE(llm::_openai_available());
  for (int i = 0; i < 2; ++i) {  // a failure is not remembered, and not worse the second time
    const auto text = text_of<llm::LLMError>([] { std::ignore = client("m", true).chat({}); });
    EXPECT_TRUE(contains(text, std::getenv("EXPECTED_TEXT"))) << text;
    EXPECT_TRUE(contains(text, "libtovren_openai.so")) << text;
  }
}

TEST(Loader, SearchesNoFolderThatAnybodyCouldFill) { EXPECT_FALSE(llm::_openai_available()); }

}  // namespace
