// Asks for an answer that a program can read: a JSON object with known members.
//
//   TOVREN_LLM_API_KEY=... json_mode URL MODEL TEXT
#include <chrono>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <tovren_mapstead/engines/llm.hpp>

namespace {

namespace llm = tovren_mapstead::engines::llm;
using Json = nlohmann::json;

// JSON mode ensures an object only. The prompt must describe its members.
constexpr const char* INSTRUCTIONS =
    "Describe the text that you are given. Answer with a JSON object and nothing else, like "
    R"({"summary": "one sentence", "tags": ["up to five", "single words"]})";

struct Description {
  std::string summary;
  std::vector<std::string> tags;
};

// Returns the description in an answer. Answers are untrusted input: a member may be missing or of
// another type. Throws std::runtime_error, whose text says what to do.
Description parse(const llm::LLMResult& result) {
  if (result.finish_reason() == "length") {
    throw std::runtime_error("the answer broke off at " +
                             std::to_string(result.completion_tokens()) +
                             " tokens; allow more (ChatOptions::max_tokens)");
  }
  const Json json = Json::parse(result.content(), nullptr, false);
  if (json.is_discarded()) {
    throw std::runtime_error(
        "the answer is not JSON; " + result.model() +
        " may have no JSON mode, so ask another model, or again with an example in the prompt");
  }
  try {
    return {.summary = json.at("summary").get<std::string>(),
            .tags = json.at("tags").get<std::vector<std::string>>()};
  } catch (const Json::exception& error) {
    throw std::runtime_error("the answer is JSON of another shape (" + std::string(error.what()) +
                             "); ask again, with the shape in the last message");
  }
}

Description describe(const llm::LLMClient& client, const std::string& text) {
  return parse(client.chat(
      {llm::system(INSTRUCTIONS), llm::user(text)},
      {.temperature = 0.0, .response_json = true, .deadline = std::chrono::seconds(30)}));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: json_mode URL MODEL TEXT\n";
    return 2;
  }
  try {
    const llm::LLMClient client =
        llm::build_llm_client_from_config({.base_url = argv[1], .model = argv[2]});
    const Description found = describe(client, argv[3]);
    std::cout << found.summary << "\n";
    for (const std::string& tag : found.tags) std::cout << "- " << tag << "\n";
    if (!std::cout.flush()) throw std::runtime_error("cannot write the description");
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "json_mode: " << error.what() << "\n";
    return 1;
  }
}
