// Whether plain providers are reached through the OpenAI client library.
#include "tovren_mapstead/engines/llm/client.hpp"

#include "engines/http/process.hpp"
#include "openai/loader.hpp"

namespace tovren_mapstead::engines::llm {

bool _openai_available() {
  const http::ForkGuard guard;  // a child must not find the one search begun and never ended
  return openai::find_library().has_value();
}

}  // namespace tovren_mapstead::engines::llm
