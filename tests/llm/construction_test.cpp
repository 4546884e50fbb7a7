// Records, and how a client is built from them.
#include <concepts>
#include <cstdlib>
#include <type_traits>
#include <unordered_set>

#include "support.hpp"

namespace {

using namespace support;
using llm::build_llm_client_from_config;
using llm::LLMConfig;
using tovren_mapstead::Config;

template <class Record>
concept CanLackModel = requires {
  Record({.content = "c"});
};

static_assert(!CanLackModel<LLMResult> && !std::is_default_constructible_v<LLMResult>);
static_assert(std::regular<LLMConfig> && std::copyable<LLMResult> && std::copyable<LLMClient>);

TEST(Records, AreEqualAndHashAlikeWhenAllFieldsAre) {
  const LLMConfig configs[] = {{},
                               {{.provider = "x"}},
                               {{.base_url = "x"}},
                               {{.model = "x"}},
                               {{.api_key = ""}},
                               {{.api_key = "x"}},
                               {{.timeout_s = 1}},
                               {{.max_retries = 1}},
                               {{.temperature = 1}},
                               {{.max_tokens = 1}},
                               {{.stream = false}}};
  const LLMResult results[] = {{{"c", "m"}},
                               {{"x", "m"}},
                               {{"c", "x"}},
                               {{"c", "m", 1}},
                               {{"c", "m", 0, 1}},
                               {{"c", "m", 0, 0, ""}},
                               {{"c", "m", 0, 0, "stop"}}};
  const auto expect_distinct = []<class Record, std::size_t SIZE>(const Record(&records)[SIZE]) {
    std::unordered_set<Record> set(std::begin(records), std::end(records));
    set.insert(std::begin(records), std::end(records));
    EXPECT_EQ(set.size(), SIZE);
  };
  expect_distinct(configs);
  expect_distinct(results);
  EXPECT_EQ(std::hash<LLMConfig>{}({{.temperature = 0.0}}),
            std::hash<LLMConfig>{}({{.temperature = -0.0}}));
}

TEST(Records, AreMovedWithoutACopy) {
  std::vector<LLMResult> kept{{{"b", "m"}}, {{std::string(10 << 20, 'x'), "m"}}};
  const char* const bytes = kept[1].content().data();
  kept.erase(kept.begin());
  const std::string answer = std::move(kept[0]).content();
  EXPECT_EQ(answer.data(), bytes);
}

TEST(Records, AddTheirTokensWithoutOverflow) {
  EXPECT_EQ(LLMResult({"", "m", 3, 4}).total_tokens(), 7);
  EXPECT_EQ(LLMResult({"", "m", INT64_MAX, 1}).total_tokens(), INT64_MAX);
  EXPECT_EQ(LLMResult({"", "m", INT64_MIN, -1}).total_tokens(), INT64_MIN);
}

TEST(Client, RefusesABaseUrlThatIsNotHttp) {
  const std::pair<std::string, const char*> cases[] = {
      {"ftp://h/", "'ftp://h/'"},
      {"http:/h", "'http:/h'"},
      {"\"it's\"", "'\"it\\'s\"'"},
      {"a\\b\t\r\n\x01\x7f\xff", "'a\\\\b\\t\\r\\n\\x01\\x7f\\xff'"},
      {"\uFEFFhttp://h\u200B\u00A0\U000E0001é", "'\\ufeffhttp://h\\u200b\\xa0\\U000e0001é'"},
      {"sk-KEY", "'***'"}};
  for (const auto& [url, shown] : cases) {
    const LLMConfig config({.base_url = url, .api_key = "sk-KEY"});
    EXPECT_EQ(text_of<std::invalid_argument>([&] { const LLMClient client(config); }),
              std::string("base_url must start with http:// or https://, got: ") + shown);
  }
  for (const char* const url : {"", "http://", "https://h"}) {
    EXPECT_EQ(LLMClient({.base_url = url}).config().base_url(), url);
  }
}

TEST(Client, NamesWhatIsMissing) {
  setenv("COPILOT_GITHUB_TOKEN", "gho_1", 1);
  const std::string url = "generation.base_url is empty";
  const std::string model = "generation.model is empty";
  const std::string key =
      "there is no API key: set the environment variable TOVREN_LLM_API_KEY, or LLMConfig's "
      "api_key";
  const std::pair<LLMConfig, std::string> cases[] = {
      {{{.provider = "Copilot", .base_url = "http://h", .model = "m", .api_key = "k"}}, ""},
      {{{.model = "m", .api_key = "k"}}, url},
      {{{.base_url = "http://h", .api_key = "k"}}, model},
      {{{.base_url = "http://h", .model = "m", .api_key = ""}}, key},
      {{}, url + "; " + model + "; " + key},
      {{{.provider = "copilot", .model = "m"}}, ""},
      {{{.provider = "copilot"}}, model}};
  for (const auto& [config, missing] : cases) {
    EXPECT_EQ(LLMClient(config).missing_settings(), missing);
    EXPECT_EQ(LLMClient(config).is_configured(), missing.empty()) << missing;
  }
}

TEST(Factory, TakesEverythingFromTheConfigurationButTheKey) {
  Config config{.generation = {"minimax", "https://h/v1", "m", 7, 1, 0.5, 99, false}};
  const auto built = [&] { return build_llm_client_from_config(config).config(); };
  setenv("TOVREN_LLM_API_KEY", "k", 1);
  EXPECT_EQ(built(), LLMConfig({"minimax", "https://h/v1", "m", "k", 7, 1, 0.5, 99, false}));
  setenv("TOVREN_LLM_API_KEY", "", 1);
  EXPECT_EQ(built().api_key(), std::nullopt);
  unsetenv("TOVREN_LLM_API_KEY");
  EXPECT_EQ(built().api_key(), std::nullopt);
  EXPECT_EQ(build_llm_client_from_config({}).config(), LLMConfig());
  config.generation.base_url = "ignored";
  EXPECT_THROW(built(), std::invalid_argument);
  config.generation.provider = "copilot";
  const char* const url = "https://api.githubcopilot.com";
  EXPECT_EQ(built(), LLMConfig({"copilot", url, "m", {}, 7, 1, 0.5, 99, false}));
  config.generation.model = "";
  EXPECT_EQ(built().model(), "claude-opus-4.8");
}

}  // namespace
