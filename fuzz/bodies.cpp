// Whole bodies of a hostile server, those of errors too, through a client; and as the reply to a
// request for a Copilot token. What must hold: no crash, only the client's own errors, valid UTF-8
// without secrets in whatever comes out, and nothing of it depends on how the body is cut.
#include "fuzz.hpp"

namespace {

using namespace fuzz;

const std::string SECRET = "sk-\"1/";

std::string outcome(int status, const std::vector<std::string>& pieces, const char* provider) {
  const http::PlaybackReply reply{.status = status, .pieces = pieces};
  const auto transport = std::make_shared<http::PlaybackTransport>(std::vector{reply});
  const llm::LLMClient client({.provider = provider,
                               .base_url = "http://h",
                               .model = "m",
                               .api_key = SECRET,
                               .max_retries = 0,
                               .stream = false},
                              {.transport = transport});
  try {
    const llm::LLMResult result = client.chat({}, {.response_json = status == 400});
    return clean(result.content() + '\n' + result.model() + '\n' +
                     result.finish_reason().value_or("") + std::to_string(result.total_tokens()),
                 "\xFF");
  } catch (const llm::LLMError& error) {
    return clean(error.what(), SECRET);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input(data, size);
  setenv("COPILOT_GITHUB_TOKEN", SECRET.c_str(), 1);
  const int status = std::array{200, 200, 200, 201, 301, 400, 401, 503}.at(input.shape % 8);
  const char* const provider = input.shape < 64 ? "copilot" : "openai";
  require(outcome(status, {input.body}, provider) ==
              outcome(status, input.cut(input.shape % 32 + 1), provider),
          input.body);
  // What a stricter reader takes for JSON is JSON here, too; but that one passes over a byte order
  // mark and ends at a NUL.
  const bool odd = input.body.find('\0') != std::string::npos || input.body.starts_with("\uFEFF");
  require(odd || !Json::accept(input.body) || http::JsonReader().parse(input.body).present(),
          input.body);
  return 0;
}
