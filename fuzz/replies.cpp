// Feeds replies of a hostile server to everything that reads them. The first byte cuts the body
// into pieces and picks its media type. What must hold: no crash, no foreign exception, only valid
// UTF-8 in results and error texts, and no secret in any of them.
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "engines/llm/reply/reasoning.hpp"
#include "playback/playback.hpp"

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

namespace {

const std::string SECRET = "sk-\"1/";

// The first byte picks the status and the media type and cuts the body into pieces.
playback::Reply to_reply(std::uint8_t shape, std::string_view body) {
  playback::Reply reply{.status = shape % 8 == 7 ? 400 : 200,
                        .content_type = shape % 2 == 0 ? "text/event-stream" : "application/json"};
  for (const std::size_t piece = shape % 64 + 1; !body.empty();) {
    reply.pieces.emplace_back(body.substr(0, piece));
    body.remove_prefix(reply.pieces.back().size());
  }
  return reply;
}

void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): libFuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
  const llm::LLMClient client(
      {.base_url = "http://h", .model = "m", .api_key = SECRET, .max_retries = 0},
      {.transport = std::make_shared<playback::Playback>(std::deque{to_reply(data[0], body)})});
  try {
    const llm::LLMResult result = client.chat({});
    require(http::is_utf8(result.content) && http::is_utf8(result.model));
    require(http::is_utf8(result.finish_reason.value_or("")));
  } catch (const llm::LLMError& error) {
    const std::string_view text = error.what();
    require(http::is_utf8(text) && text.find(SECRET) == std::string_view::npos);
  }
  require(llm::_strip_reasoning(body).size() <= body.size());
  require(http::redact(body, {SECRET, "*", "\\"}).find(SECRET) == std::string::npos);
  // What a stricter reader takes for JSON is JSON here, too; but that one passes over a byte order
  // mark and ends at a NUL.
  const bool plain = body.find('\0') == std::string::npos && !body.starts_with("\xEF\xBB\xBF");
  http::JsonReader reader;
  if (plain && nlohmann::json::accept(body)) require(reader.parse(body).has_value());
  return 0;
}
