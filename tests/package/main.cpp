// The README's example, compiled against the installed headers alone.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string_view>
#include <tovren_mapstead/engines/llm.hpp>

namespace llm = tovren_mapstead::engines::llm;
using namespace std::chrono_literals;

int main() {
  std::atomic<bool> stopping = true;
  const llm::LLMClient client(
      llm::LLMConfig{.base_url = "http://127.0.0.1:9/v1", .model = "m", .api_key = "k"});
  try {
    const llm::LLMResult result =
        client.chat({{{"role", "user"}, {"content", "Hello"}}},
                    {.temperature = 0.0,
                     .should_stop = [&] { return stopping.load(); },
                     .deadline = std::chrono::steady_clock::now() + 30s});
    std::puts(result.content.c_str());
  } catch (const llm::LLMStopped& stopped) {
    return std::string_view(stopped.what()).find("stopped") == std::string_view::npos;
  }
  return 1;
}
