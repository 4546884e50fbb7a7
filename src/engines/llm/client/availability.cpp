// Whether plain providers are reached through the OpenAI client library.
#include "tovren_mapstead/engines/llm/client.hpp"

#include "openai/loader.hpp"

namespace tovren_mapstead::engines::llm {

bool _openai_available() {
  return openai::find_library().has_value();
}

}  // namespace tovren_mapstead::engines::llm
