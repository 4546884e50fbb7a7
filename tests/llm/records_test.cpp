#include <type_traits>
#include <unordered_set>

#include "tovren_mapstead/engines/llm.hpp"

#include "engines/llm/tunables.hpp"
#include "support.hpp"

namespace {

namespace llm = tovren_mapstead::engines::llm;
using llm::LLMConfig;
using llm::LLMResult;

template <class Record>
concept CanLackModel = requires {
  Record{.content = "c"};
};

template <class Record>
concept CanLackContent = requires {
  Record{.model = "m"};
};

template <class Record>
concept CanHaveBoth = requires {
  Record{.content = "c", .model = "m"};
};

static_assert(CanHaveBoth<LLMResult> && !CanLackModel<LLMResult> && !CanLackContent<LLMResult>);
static_assert(!std::is_default_constructible_v<LLMResult>);

template <class Record>
concept Assignable = requires(Record a, const Record& b) {
  a = b;
}

|| requires(Record a) {
  a.model = "x";
}

|| requires(Record a) {
  a.temperature = 1;
}

|| requires(Record a) {
  a.prompt_tokens = 1;
}

|| requires(Record a) {
  a.model += "x";
};

static_assert(!Assignable<LLMConfig> && !Assignable<LLMResult>);
static_assert(std::is_copy_constructible_v<LLMConfig> && std::is_copy_constructible_v<LLMResult>);

static_assert(std::is_base_of_v<std::runtime_error, llm::LLMError> &&
              std::is_base_of_v<llm::LLMError, llm::LLMStopped> &&
              std::is_base_of_v<llm::LLMError, llm::LLMTimeout>);

static_assert(llm::SDK_RETRYABLE_STATUS.size() == 103 && llm::RETRYABLE_STATUS.size() == 7);
static_assert(llm::SDK_RETRYABLE_STATUS.contains(501) && !llm::RETRYABLE_STATUS.contains(501));
static_assert(llm::RETRYABLE_STATUS.contains(409) && !llm::SDK_RETRYABLE_STATUS.contains(400));

TEST(Records, HaveTheirDefaults) {
  const LLMConfig config;
  EXPECT_EQ(config, (LLMConfig{.provider = "openai",
                               .base_url = "",
                               .model = "",
                               .api_key = std::nullopt,
                               .timeout_s = 60.0,
                               .max_retries = 2,
                               .temperature = 0.2,
                               .max_tokens = 1500,
                               .stream = true}));
  EXPECT_EQ((LLMResult{.content = "", .model = "m"}), (LLMResult{"", "m", 0, 0, std::nullopt}));
}

TEST(Records, AreEqualAndHashAlikeWhenAllFieldsAre) {
  const LLMConfig configs[] = {{},
                               {.provider = "x"},
                               {.base_url = "x"},
                               {.model = "x"},
                               {.api_key = ""},
                               {.api_key = "x"},
                               {.timeout_s = 1},
                               {.max_retries = 1},
                               {.temperature = 1},
                               {.max_tokens = 1},
                               {.stream = false}};
  const LLMResult results[] = {{"c", "m"},
                               {"x", "m"},
                               {"c", "x"},
                               {"c", "m", 1},
                               {"c", "m", 0, 1},
                               {"c", "m", 0, 0, ""},
                               {"c", "m", 0, 0, "stop"}};
  const auto check = [](const auto& records) {
    std::unordered_set<std::remove_cvref_t<decltype(*std::begin(records))>> set;
    for (const auto& record : records) {
      const auto copy = record;
      EXPECT_EQ(std::hash<std::remove_const_t<decltype(copy)>>{}(copy),
                std::hash<std::remove_const_t<decltype(copy)>>{}(record));
      set.insert(record);
      set.insert(copy);
    }
    EXPECT_EQ(set.size(), std::size(records));
  };
  check(configs);
  check(results);
  EXPECT_EQ(std::hash<LLMConfig>{}({.temperature = 0.0}),
            std::hash<LLMConfig>{}({.temperature = -0.0}));
}

TEST(Records, AddTheirTokensWithoutOverflow) {
  constexpr auto MAX = std::numeric_limits<std::int64_t>::max();
  constexpr auto MIN = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ((LLMResult{.content = "", .model = "m", .prompt_tokens = 3, .completion_tokens = 4}
                 .total_tokens()),
            7);
  EXPECT_EQ((LLMResult{"", "m", MAX, 1}.total_tokens()), MAX);
  EXPECT_EQ((LLMResult{"", "m", MIN, -1}.total_tokens()), MIN);
  EXPECT_EQ((LLMResult{"", "m", MIN, MAX}.total_tokens()), -1);
}

}  // namespace
