#include "endpoint/completion.hpp"

#include <algorithm>

namespace endpoint {

std::string_view start_of(std::string_view text, std::size_t bytes) {
  std::size_t size = std::min(bytes, text.size());
  while (size < text.size() && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) ++size;
  return text.substr(0, size);
}

void reply(loopback::Exchange& exchange, const Json& asked, const Answer& answer,
           std::chrono::milliseconds pause, std::size_t chunk_bytes) {
  constexpr std::size_t PIECE_BYTES = 24;
  const Json usage{{"prompt_tokens", exchange.request().body.size() / BYTES_PER_TOKEN},
                   {"completion_tokens", answer.text.size() / BYTES_PER_TOKEN}};
  const auto body = [model = asked.at("model")](const Json& choices, const Json& counts) {
    return Json{{"model", model}, {"choices", choices}, {"usage", counts}}.dump();
  };
  const auto choice = [](const char* part, const Json& value, const Json& finish_reason) {
    return Json::array({{{"index", 0}, {part, value}, {"finish_reason", finish_reason}}});
  };
  if (!asked.value("stream", false)) {
    const Json message{{"role", "assistant"}, {"content", answer.text}};
    return exchange.reply(200, body(choice("message", message, answer.finish_reason), usage));
  }
  const auto send = [&](const std::string& data) {
    exchange.pause(pause);
    const std::string event = "data: " + data + "\n\n";
    for (std::string_view rest = event; !rest.empty();) {
      const std::string_view some = rest.substr(0, chunk_bytes);
      exchange.chunk(some);
      rest.remove_prefix(some.size());
    }
  };
  exchange.start_stream();
  for (std::string_view rest = answer.text; !rest.empty();) {
    const std::string_view piece = start_of(rest, PIECE_BYTES);
    rest.remove_prefix(piece.size());
    send(body(choice("delta", {{"content", piece}}, nullptr), nullptr));
  }
  send(body(choice("delta", Json::object(), answer.finish_reason), nullptr));
  send(body(Json::array(), usage));
  send("[DONE]");
  exchange.end_stream();
}

}  // namespace endpoint
