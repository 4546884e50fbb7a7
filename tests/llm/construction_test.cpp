// Records, and how a client is built from them.
#include <climits>
#include <cmath>
#include <concepts>
#include <cstdlib>
#include <map>
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

template <class Record>
concept HasAssignableFields = requires(Record record) {
  record.model() = "";
};

static_assert(!CanLackModel<LLMResult> && !std::is_default_constructible_v<LLMResult>);
static_assert(!HasAssignableFields<LLMConfig> && !HasAssignableFields<LLMResult>);
static_assert(std::regular<LLMConfig> && std::copyable<LLMResult> && std::copyable<LLMClient>);

static_assert(std::is_base_of_v<std::runtime_error, llm::LLMError> &&
              std::is_base_of_v<llm::LLMError, llm::LLMStopped> && std::is_base_of_v<llm::LLMError, llm::LLMTimeout>);

TEST(Records, HaveTheirDefaults) {
  EXPECT_EQ(LLMConfig(), LLMConfig({"openai", "", "", std::nullopt, 60.0, 2, 0.2, 1500, true}));
  EXPECT_EQ(LLMResult({.content = "", .model = "m"}), LLMResult({"", "m", 0, 0, std::nullopt}));
}

TEST(Records, AreEqualAndHashAlikeWhenAllFieldsAre) {
  const LLMConfig configs[] = {
      {},
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
  const LLMResult results[] = {{{"c", "m"}}, {{"x", "m"}}, {{"c", "x"}}, {{"c", "m", 1}}, {{"c", "m", 0, 1}}, {{"c", "m", 0, 0, ""}}, {{"c", "m", 0, 0, "stop"}}};
  const auto distinct = [](const auto& records) {
    std::unordered_set<std::remove_cvref_t<decltype(records[0])>> set(std::begin(records), std::end(records));
    set.insert(std::begin(records), std::end(records));
    return set.size();
  };
  EXPECT_EQ(distinct(configs), std::size(configs));
  EXPECT_EQ(distinct(results), std::size(results));
  EXPECT_EQ(std::hash<LLMConfig>{}({{.temperature = 0.0}}), std::hash<LLMConfig>{}({{.temperature = -0.0}}));
}

// Results are what an application keeps in its containers.
TEST(Records, AreKeptInContainersAndMovedWithoutACopy) {
  std::vector<LLMResult> kept{{{"b", "m"}}, {{"a", "m"}}, {{"c", "m"}}};
  std::ranges::sort(kept, {}, [](const LLMResult& result) { return result.content(); });
  kept.erase(kept.begin() + 1);
  kept[0] = kept[1];
  std::map<std::string, LLMResult> by_name;
  by_name["x"] = kept[0];
  std::optional<LLMResult> last;
  last = by_name.at("x");
  EXPECT_EQ(last->content(), "c");
  LLMResult large({.content = std::string(10 << 20, 'x'), .model = "m"});
  const char* const bytes = large.content().data();
  kept.push_back(std::move(large));
  LLMResult moved = std::move(kept.back());
  EXPECT_EQ(moved.content().data(), bytes);
  const std::string answer = std::move(moved).content();
  EXPECT_EQ(answer.data(), bytes);
  llm::ChatOptions options;
  options.max_tokens = 5;
  LLMClient client({.model = "m"});
  client = LLMClient({.model = "n"});
  EXPECT_EQ(client.model(), "n");
}

TEST(Records, AddTheirTokensWithoutOverflow) {
  EXPECT_EQ(LLMResult({"", "m", 3, 4}).total_tokens(), 7);
  EXPECT_EQ(LLMResult({"", "m", INT64_MAX, 1}).total_tokens(), INT64_MAX);
  EXPECT_EQ(LLMResult({"", "m", INT64_MIN, -1}).total_tokens(), INT64_MIN);
  EXPECT_EQ(LLMResult({"", "m", INT64_MIN, INT64_MAX}).total_tokens(), -1);
}

TEST(Client, RefusesABaseUrlThatIsNotHttp) {
  const std::pair<std::string, const char*> cases[] = {
      {"ftp://h/", "'ftp://h/'"},
      {"HTTPS://h/", "'HTTPS://h/'"},
      {"\"it's\"", "'\"it\\'s\"'"},
      {"a\\b\n\x01\x7f\xff", "'a\\\\b\\n\\x01\\x7f\\xff'"},
      {"\xEF\xBB\xBFhttp://h\u200B\u00A0\U000E0001é", "'\\ufeffhttp://h\\u200b\\xa0\\U000e0001é'"},
      {"sk-KEY", "'***'"}};
  for (const auto& [url, shown] : cases) {
    const LLMConfig config({.base_url = url, .api_key = "sk-KEY"});
    EXPECT_EQ(text_of<std::invalid_argument>([&] { const LLMClient client(config); }),
              std::string("base_url must start with http:// or https://, got: ") + shown);
  }
}

TEST(Client, IsConfiguredWhenItHasUrlModelAndKey) {
  const auto configured = [](const LLMConfig::Fields& config) { return LLMClient(config).is_configured(); };
  EXPECT_TRUE(configured({.provider = "Copilot", .base_url = "http://h", .model = "m", .api_key = "k"}));
  EXPECT_FALSE(configured({.model = "m", .api_key = "k"}));
  EXPECT_FALSE(configured({.base_url = "http://h", .api_key = "k"}));
  EXPECT_FALSE(configured({.base_url = "http://h", .model = "m"}));
  EXPECT_FALSE(configured({.base_url = "http://h", .model = "m", .api_key = ""}));
  setenv("COPILOT_GITHUB_TOKEN", "gho_1", 1);
  EXPECT_TRUE(configured({.provider = "copilot", .model = "m"}));
  EXPECT_FALSE(configured({.provider = "copilot"}));
}

TEST(Client, NamesWhatIsMissingAndRefusesBadTimeLimits) {
  const auto missing = [](const LLMConfig::Fields& config) {
    return LLMClient(config).missing_settings();
  };
  EXPECT_EQ(missing({.base_url = "http://h", .model = "m", .api_key = "k"}), "");
  EXPECT_EQ(missing({}),
            "generation.base_url is empty; generation.model is empty; there is no API key: set the "
            "environment variable TOVREN_LLM_API_KEY, or LLMConfig's api_key");
  setenv("COPILOT_GITHUB_TOKEN", "gho_1", 1);
  EXPECT_EQ(missing({.provider = "copilot"}), "generation.model is empty");
  for (const double timeout_s : {-5.0, std::nan(""), HUGE_VAL}) {
    const LLMClient client(
        {.base_url = "http://h", .model = "m", .api_key = "k", .timeout_s = timeout_s});
    const auto text = text_of<llm::LLMError>([&] { std::ignore = client.chat({}); });
    EXPECT_TRUE(contains(text, "timeout_s")) << text;
  }
}

TEST(Client, MakesOneAttemptMoreThanRetries) {
  for (const auto& [retries, tries] : {std::pair{0, 1}, {INT_MIN, 1}, {INT_MAX, 4}}) {
    const auto transport = std::make_shared<Playback>(std::deque<Reply>{{.status = 503}, {.status = 503}, {.status = 503}, {.status = 418}});
    const LLMClient client({.base_url = "http://h", .model = "m", .api_key = "k", .max_retries = retries},
                           {.transport = transport, .wait = [](double, auto&, auto) {}});
    EXPECT_THROW(std::ignore = client.chat({}), llm::LLMError);
    EXPECT_EQ(transport->requests.size(), static_cast<std::size_t>(tries)) << retries;
  }
}

TEST(Factory, TakesEverythingFromTheConfigurationButTheKey) {
  Config config{.generation = {"minimax", "https://h/v1", "m", 7, 1, 0.5, 99, false}};
  setenv("TOVREN_LLM_API_KEY", "k", 1);
  EXPECT_EQ(build_llm_client_from_config(config).config(),
            LLMConfig({"minimax", "https://h/v1", "m", "k", 7, 1, 0.5, 99, false}));
  config.generation.provider = "copilot";
  config.generation.base_url = "ignored";
  config.generation.model = "";
  EXPECT_EQ(build_llm_client_from_config(config).config(),
            LLMConfig({"copilot", "https://api.githubcopilot.com", "claude-opus-4.8", {}, 7, 1, 0.5, 99, false}));
  config.generation.model = "m";
  EXPECT_EQ(build_llm_client_from_config(config).model(), "m");
  config.generation.provider = "openai";
  EXPECT_THROW(std::ignore = build_llm_client_from_config(config), std::invalid_argument);
  config.generation.base_url = "http://h";
  setenv("TOVREN_LLM_API_KEY", "", 1);
  EXPECT_EQ(build_llm_client_from_config(config).config().api_key(), std::nullopt);
  unsetenv("TOVREN_LLM_API_KEY");
  EXPECT_FALSE(build_llm_client_from_config(config).is_configured());
}

}  // namespace
