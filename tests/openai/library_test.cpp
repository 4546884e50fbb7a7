// A client library that misbehaves, and one that cannot be used.
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <dlfcn.h>
#include <unistd.h>

#include "support.hpp"

namespace {

namespace fs = std::filesystem;
using namespace support;

constexpr const char* ADDRESS = "http://h/";

LLMResult ask(const std::string& model, bool stream, bool json = false,
              const std::string& url = ADDRESS) {
  const LLMClient client({.base_url = url,
                          .model = model,
                          .api_key = "sk-KEY-1",
                          .timeout_s = 7,
                          .stream = stream},
                         {.wait = [](double, auto&, auto) {}});
  return client.chat({}, {.response_json = json});
}

TEST(Library, MayAnswerInEveryWay) {
  struct Case {
    const char* model;
    bool stream;
    LLMResult answer;
  };

  const Case cases[] = {
      {"nulls", false, {{"", "nulls"}}},
      {"empties", false, {{"", "empties", 0, 0, ""}}},
      {"numbers", false, {{"2.5", "5", 7, 0, "true"}}},
      {"plain", true, {{"Hello", "plain"}}},
      {"empties", true, {{"Hello", "empties"}}},
      {"counts", true, {{"Hello", "x", 7, 8, "stop"}}},  // null and text without a number count not
  };
  for (const Case& c : cases) EXPECT_EQ(ask(c.model, c.stream), c.answer) << c.model;
}

TEST(Library, MayFailInEveryWay) {
  struct Case {
    const char* model;
    bool stream;
    const char* told;
    int clients = 1;
    bool json = false;
    const char* url = ADDRESS;
  };

  const Case cases[] = {
      {"arguments", true, "call failed: http://h/ 7.000000 0 stream options json", 1, true},
      {"arguments", false, "call failed: http://h/ 7.000000 0"},
      {"foreign", true, "LLM SDK call failed: foreign ***"},
      {"no words", true, "LLM SDK call failed: "},
      {"unknown", true, "the OpenAI client library raised an error of an unknown kind"},
      {"499", false, "LLM SDK call failed: status ***"},
      {"501", false, "LLM call failed after 3 attempts; last failure: status ***", 3},
      {"599", false, "LLM call failed after 3 attempts; last failure: status ***", 3},
      {"timeout", true, "LLM call failed after 3 attempts; last failure: late", 3},
      {"rejects both", true, "call failed: rejected without", 3, true},
      {"null stream", true, "call failed: the OpenAI client library gave another kind of reply"},
      {"wrong kind", true, "call failed: the OpenAI client library gave another kind of reply"},
      {"wrong kind", false, "call failed: the OpenAI client library gave another kind of reply"},
      {"no choices", false, "LLM SDK response missing 'choices': all of ***"},
      {"empty choices", false, "LLM SDK response missing 'choices': all of ***"},
      {"no message", false, "call failed: the first choice of the reply has no message"},
      {"breaks", true, "LLM call failed after 3 attempts; last failure: broken ***", 3},
      {"breaks oddly", true, "call failed: the OpenAI client library raised"},
      {"m", true, "made no client", 0, false, "http://no.client"},
  };
  void* const library = dlopen(SCRIPTED_LIBRARY, RTLD_LAZY);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto counts = reinterpret_cast<void (*)(int*, int*)>(dlsym(library, "client_counts"));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.model);
    int before = 0, opened = 0, closed = 0;
    counts(&before, &closed);
    const auto text =
        text_of<llm::LLMError>([&] { std::ignore = ask(c.model, c.stream, c.json, c.url); });
    EXPECT_TRUE(text.starts_with("LLM ") && contains(text, c.told)) << text;
    EXPECT_FALSE(contains(text, "sk-")) << text;
    counts(&opened, &closed);
    EXPECT_EQ(opened - before, c.clients);
    EXPECT_EQ(opened, closed);
  }
}

// Runs in a process of its own for each row of the test after it.
TEST(Child, DISABLED_FindsWhatIsExpected) {
  const std::string expected = std::getenv("EXPECTED_TEXT");
  ASSERT_EQ(llm::_openai_available(), !expected.empty());
  for (int i = 0; i < 2 && !expected.empty(); ++i) {  // a failure is not remembered
    const auto text = text_of<llm::LLMError>([] { std::ignore = ask("arguments", true); });
    EXPECT_TRUE(contains(text, expected)) << text;
  }
}

class Loader : public testing::Test {
 protected:
  ~Loader() override { fs::remove_all(folder); }

  const fs::path folder = fs::temp_directory_path() / ("loader." + std::to_string(getpid()));
};

TEST_F(Loader, UsesOnlyALibraryThatOthersCannotReplace) {
  const auto OTHERS_WRITE = fs::perms::others_write;
  const auto STICKY = fs::perms::others_write | fs::perms::sticky_bit;

  struct Case {
    const char* name;
    const char* told;  // empty: it is not found
    fs::perms parent{}, own{}, file{};  // rights that are added
    std::string content{};              // of the file, in place of the library's
    const char* entry = "";             // what its entry point does
    const char* path = "";              // the search path, in place of the folder's
    const char* link_to = "";           // what the file is a link to
  };

  std::ifstream input(SCRIPTED_LIBRARY, std::ios::binary);
  const std::string good{std::istreambuf_iterator<char>(input), {}};
  std::string nameless = good;
  for (std::size_t at = 0; (at = nameless.find("tovren_openai_library", at)) != std::string::npos;) {
    nameless[at] = 'x';
  }
  const char* const used = "LLM SDK call failed: http://h/";
  const Case cases[] = {
      {.name = "good", .told = used},
      {.name = "below a sticky folder", .told = used, .parent = STICKY},
      {.name = "below an open folder", .told = "", .parent = OTHERS_WRITE},
      {.name = "in an open folder", .told = "", .own = OTHERS_WRITE},
      {.name = "in a sticky folder", .told = "", .own = STICKY},
      {.name = "writable", .told = "", .file = OTHERS_WRITE},
      {.name = "relative", .told = "", .path = "."},
      {.name = "relative by another name", .told = "", .path = "/proc/self/cwd"},
      {.name = "link", .told = used, .link_to = "target"},
      {.name = "link to a writable file", .told = "", .file = OTHERS_WRITE, .link_to = "target"},
      {.name = "link to nothing", .told = "", .link_to = "nothing"},
      {.name = "link to a folder", .told = "", .link_to = "."},
      {.name = "no object", .told = "file too short", .content = "no object at all"},
      {.name = "cut", .told = "is truncated", .content = good.substr(0, good.size() / 2)},
      {.name = "no segments", .told = "is truncated", .content = good.substr(0, 100)},
      {.name = "no entry point", .told = "undefined symbol: tovren", .content = nameless},
      {.name = "another version", .told = "made for version 3", .entry = "newer"},
      {.name = "no library", .told = "returns no library", .entry = "null"},
      {.name = "no way to open", .told = "cannot open a client", .entry = "closed"},
      {.name = "an error", .told = "the entry point of the OpenAI", .entry = "throws"},
  };
  const std::string program = fs::read_symlink("/proc/self/exe");
  for (const Case& c : cases) {
    fs::remove_all(folder);
    const fs::path own = folder / "own", library = own / "libtovren_openai.so";
    fs::create_directories(own);
    const fs::path file = *c.link_to == '\0' ? library : folder / "target";
    std::ofstream(file, std::ios::binary) << (c.content.empty() ? good : c.content);
    if (file != library) fs::create_symlink(folder / c.link_to, library);
    fs::permissions(folder, c.parent, fs::perm_options::add);
    fs::permissions(own, c.own, fs::perm_options::add);
    fs::permissions(file, c.file, fs::perm_options::add);
    const std::string command =
        "cd '" + own.string() + "' && EXPECTED_TEXT='" + c.told + "' ENTRY_POINT='" + c.entry +
        "' LD_LIBRARY_PATH='" + (*c.path == '\0' ? own.string() : c.path) + "' '" + program +
        "' --gtest_brief --gtest_also_run_disabled_tests --gtest_filter='*.DISABLED_*'";
    EXPECT_EQ(std::system(command.c_str()), 0) << c.name;
  }
}

}  // namespace
