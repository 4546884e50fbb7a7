// Whole bodies of a hostile server, failures too, through a client. What must hold: no crash, only
// the client's own errors, valid UTF-8 without secrets in whatever comes out, and nothing of it
// depends on how the body is cut into reads.
#include <array>

#include <nlohmann/json.hpp>

#include "fuzz.hpp"

namespace {

using namespace fuzz;

const std::string SECRET = "sk-\"1/";

std::string outcome(int status, const std::vector<std::string>& pieces) {
  const playback::Reply reply{.status = status, .pieces = pieces};
  const llm::LLMClient client({.base_url = "http://h", .model = "m", .api_key = SECRET, .max_retries = 0},
                              {.transport = std::make_shared<playback::Playback>(std::deque{reply})});
  std::string told;
  try {
    const llm::LLMResult result = client.chat({});
    const std::string reason = result.finish_reason.value_or("");
    require(http::is_utf8(result.content) && http::is_utf8(result.model) && http::is_utf8(reason));
    return result.content + '\n' + result.model + '\n' + reason + std::to_string(result.total_tokens());
  } catch (const llm::LLMError& error) {
    told = error.what();
  }
  require_clean(told, {SECRET});
  return told;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [shape, body] = Input(data, size);
  const int status = std::array{200, 200, 200, 201, 301, 400, 401, 503}.at(shape % 8);
  require(outcome(status, {body}) == outcome(status, cut(body, shape % 32 + 1)), body);
  // What a stricter reader takes for JSON is JSON here, too; but that one passes over a byte order
  // mark and ends at a NUL.
  const bool plain = body.find('\0') == std::string::npos && !body.starts_with("\xEF\xBB\xBF");
  http::JsonReader reader;
  if (plain && nlohmann::json::accept(body)) require(reader.parse(body).has_value(), body);
  return 0;
}
