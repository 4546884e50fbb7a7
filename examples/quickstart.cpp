// The first program: one question, then one answer or one line with the error.
//
//   TOVREN_LLM_API_KEY=... quickstart URL MODEL [QUESTION]
#include <chrono>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include <tovren_mapstead/engines/llm.hpp>

namespace llm = tovren_mapstead::engines::llm;

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::cerr << "usage: quickstart URL MODEL [QUESTION]\n";
    return 2;
  }
  const std::string question = argc > 3 ? argv[3] : "What is an exponential backoff?";
  try {
    const llm::LLMClient client = llm::build_llm_client_from_config({
        .base_url = argv[1],  // such as https://api.example.org/v1
        .model = argv[2],
    });

    const llm::Messages messages{llm::system("Answer in one paragraph."), llm::user(question)};
    const llm::LLMResult result = client.chat(messages, {.deadline = std::chrono::seconds(30)});

    std::cout << result.content() << std::endl;
    if (!std::cout) throw std::runtime_error("cannot write the answer");
    return 0;
  } catch (const std::exception& error) {  // usually an LLMError
    std::cerr << "quickstart: " << error.what() << "\n";
    return 1;
  }
}
