#include "tovren_mapstead/engines/llm/config.hpp"

#include "engines/llm/hash.hpp"

namespace llm = tovren_mapstead::engines::llm;

std::size_t std::hash<llm::LLMConfig>::operator()(const llm::LLMConfig& config) const noexcept {
  return llm::hash_of(config.provider(), config.base_url(), config.model(), config.api_key(),
                      config.timeout_s(), config.max_retries(), config.temperature(),
                      config.max_tokens(), config.stream());
}
