// Hashes of the records, in step with their equality.
#include <functional>
#include <initializer_list>

#include "tovren_mapstead/engines/llm/config.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"

namespace {

template <class Value>
std::size_t hash_of(const Value& value) noexcept {
  return std::hash<Value>{}(value);
}

std::size_t combined(std::initializer_list<std::size_t> hashes) noexcept {
  constexpr std::size_t GOLDEN = 0x9E3779B97F4A7C15;  // spreads neighbouring values (Knuth)
  std::size_t seed = 0;
  for (const std::size_t hash : hashes) seed ^= hash + GOLDEN + (seed << 6U) + (seed >> 2U);
  return seed;
}

}  // namespace

namespace llm = tovren_mapstead::engines::llm;

std::size_t std::hash<llm::LLMConfig>::operator()(const llm::LLMConfig& config) const noexcept {
  return combined({hash_of(config.provider), hash_of(config.base_url), hash_of(config.model),
                   hash_of(config.api_key), hash_of(config.timeout_s), hash_of(config.max_retries),
                   hash_of(config.temperature), hash_of(config.max_tokens),
                   hash_of(config.stream)});
}

std::size_t std::hash<llm::LLMResult>::operator()(const llm::LLMResult& result) const noexcept {
  return combined({hash_of<std::string>(result.content), hash_of<std::string>(result.model),
                   hash_of(result.prompt_tokens), hash_of(result.completion_tokens),
                   hash_of(result.finish_reason)});
}
