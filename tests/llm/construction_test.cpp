#include <climits>
#include <cstdlib>

#include "tovren_mapstead/engines/llm.hpp"

#include "support.hpp"

namespace {

using namespace support;
namespace llm = tovren_mapstead::engines::llm;
using llm::LLMClient;
using llm::LLMConfig;
using tovren_mapstead::Config;

TEST(Client, RefusesABaseUrlThatIsNotHttp) {
  struct Case {
    std::string url;
    const char* shown;
  };

  const Case cases[] = {
      {"ftp://h/", "'ftp://h/'"},
      {"HTTPS://h/", "'HTTPS://h/'"},
      {" http://h/", "' http://h/'"},
      {"it's", "\"it's\""},
      {"\"it's\"", "'\"it\\'s\"'"},
      {"a\\b\n\x01\x7f\xff", "'a\\\\b\\n\\x01\\x7f\\xff'"},
      {"\xEF\xBB\xBFhttp://h\u200B\u00A0\U000E0001é", "'\\ufeffhttp://h\\u200b\\xa0\\U000e0001é'"},
      {"sk-KEY", "'***'"},
  };
  for (const Case& c : cases) {
    const auto text = text_of<std::invalid_argument>(
        [&] { const LLMClient client({.base_url = c.url, .api_key = "sk-KEY"}); });
    EXPECT_EQ(text, std::string("base_url must start with http:// or https://, got: ") + c.shown);
  }
  for (const char* const url : {"", "http://127.0.0.1:8080/v1", "https://h"}) {
    EXPECT_EQ(LLMClient({.base_url = url, .model = "m"}).config().base_url, url);
  }
}

TEST(Client, IsConfiguredWhenItHasUrlModelAndKey) {
  const auto configured = [](LLMConfig config) {
    return LLMClient(std::move(config)).is_configured();
  };
  EXPECT_TRUE(
      configured({.provider = "Copilot", .base_url = "http://h", .model = "m", .api_key = "k"}));
  EXPECT_FALSE(configured({.model = "m", .api_key = "k"}));
  EXPECT_FALSE(configured({.base_url = "http://h", .api_key = "k"}));
  EXPECT_FALSE(configured({.base_url = "http://h", .model = "m"}));
  EXPECT_FALSE(configured({.base_url = "http://h", .model = "m", .api_key = ""}));
}

// The number of tries shows in the number of requests.
TEST(Client, MakesOneAttemptMoreThanRetries) {
  for (const auto& [retries, tries] : {std::pair{2, 3}, {0, 1}, {-5, 1}, {INT_MIN, 1}}) {
    auto transport = std::make_shared<Playback>(std::deque{Reply{.status = 503}});
    const LLMClient client(
        {.base_url = "http://h", .model = "m", .api_key = "k", .max_retries = retries},
        {.transport = transport, .wait = [](double, const auto&, auto) {}});
    EXPECT_THROW(std::ignore = client.chat({}), llm::LLMError);
    EXPECT_EQ(transport->requests.size(), static_cast<std::size_t>(tries));
  }
  int waits = 0;
  const LLMClient tireless(
      {.base_url = "http://h", .model = "m", .api_key = "k", .max_retries = INT_MAX},
      {.transport = std::make_shared<Playback>(std::deque{Reply{.status = 503}}),
       .wait = [&](double, const auto&, auto) {
         if (++waits == 5) throw 7;
       }});
  EXPECT_THROW(std::ignore = tireless.chat({}), int);
}

TEST(Factory, TakesEverythingFromTheConfigurationButTheKey) {
  Config config{.generation = {.provider = "minimax",
                               .base_url = "https://h/v1",
                               .model = "m",
                               .timeout_s = 7,
                               .max_retries = 1,
                               .temperature = 0.5,
                               .max_output_tokens = 99,
                               .stream = false}};
  setenv("TOVREN_LLM_API_KEY", "k", 1);
  EXPECT_EQ(llm::build_llm_client_from_config(config).config(),
            (LLMConfig{.provider = "minimax",
                       .base_url = "https://h/v1",
                       .model = "m",
                       .api_key = "k",
                       .timeout_s = 7,
                       .max_retries = 1,
                       .temperature = 0.5,
                       .max_tokens = 99,
                       .stream = false}));
  setenv("TOVREN_LLM_API_KEY", "", 1);
  EXPECT_EQ(llm::build_llm_client_from_config(config).config().api_key, std::nullopt);
  unsetenv("TOVREN_LLM_API_KEY");
  EXPECT_FALSE(llm::build_llm_client_from_config(config).is_configured());
  config.generation.base_url = "gopher://h";
  EXPECT_THROW(std::ignore = llm::build_llm_client_from_config(config), std::invalid_argument);
}

}  // namespace
