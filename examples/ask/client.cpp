#include "ask/client.hpp"

#include <utility>

namespace ask {

namespace llm = tovren_mapstead::engines::llm;

llm::LLMClient build_client(const Options& options, const Demo* demo,
                            std::shared_ptr<tovren_mapstead::engines::http::Transport> transport) {
  tovren_mapstead::GenerationConfig gen{
      .provider = options.provider, .base_url = options.base_url, .model = options.model};
  gen.timeout_s = options.timeout_s.value_or(gen.timeout_s);
  gen.max_retries = options.retries.value_or(gen.max_retries);
  gen.temperature = options.temperature.value_or(gen.temperature);
  gen.max_output_tokens = options.max_tokens.value_or(gen.max_output_tokens);
  gen.stream = options.stream;
  llm::LLMConfig::Fields fields = llm::build_llm_client_from_config(gen).config().fields();
  if (demo != nullptr) {
    fields.base_url = demo->base_url();
    if (fields.model.empty()) fields.model = "demo";
    fields.api_key = "demo-key";  // the demo does not get the key from the environment
  }
  return llm::LLMClient(std::move(fields), {.transport = std::move(transport)});
}

const char* transport_name(const Options& options) {
  if (options.provider == COPILOT) return "as GitHub Copilot";
  return llm::_openai_available() ? "through the OpenAI client library" : "over plain HTTP";
}

}  // namespace ask
