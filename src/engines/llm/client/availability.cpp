// Whether plain providers are reached through the OpenAI client library.
#include "tovren_mapstead/engines/llm/client.hpp"

namespace tovren_mapstead::engines::llm {

// There is no such library to look for yet.
bool _openai_available() {
  return false;
}

}  // namespace tovren_mapstead::engines::llm
