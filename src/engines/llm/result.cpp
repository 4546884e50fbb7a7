#include "tovren_mapstead/engines/llm/result.hpp"

#include "engines/llm/hash.hpp"

namespace llm = tovren_mapstead::engines::llm;

std::size_t std::hash<llm::LLMResult>::operator()(const llm::LLMResult& result) const noexcept {
  return llm::hash_of(result.content(), result.model(), result.prompt_tokens(),
                      result.completion_tokens(), result.finish_reason());
}
