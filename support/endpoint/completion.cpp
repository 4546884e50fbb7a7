#include "endpoint/completion.hpp"

#include <algorithm>

namespace endpoint {

std::string_view start_of(std::string_view text, std::size_t bytes) {
  std::size_t size = std::min(bytes, text.size());
  while (size < text.size() && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) ++size;
  return text.substr(0, size);
}

void reply(loopback::Exchange& exchange, const Json& asked, const Answer& answer,
           std::chrono::milliseconds pause) {
  constexpr std::size_t PIECE_BYTES = 24;
  const Json& model = asked.at("model");
  const Json usage{{"prompt_tokens", exchange.request().body.size() / BYTES_PER_TOKEN},
                   {"completion_tokens", answer.text.size() / BYTES_PER_TOKEN}};
  if (!asked.value("stream", false)) {
    const Json choice{{"index", 0},
                      {"message", {{"role", "assistant"}, {"content", answer.text}}},
                      {"finish_reason", answer.finish_reason}};
    exchange.reply(
        200, Json{{"model", model}, {"choices", Json::array({choice})}, {"usage", usage}}.dump());
    return;
  }
  exchange.start_stream();
  const auto event = [&](const Json& choices, const Json& counts) {
    return exchange.chunk(
        "data: " + Json{{"model", model}, {"choices", choices}, {"usage", counts}}.dump() + "\n\n");
  };
  for (std::string_view rest = answer.text; !rest.empty();) {
    const std::string_view piece = start_of(rest, PIECE_BYTES);
    rest.remove_prefix(piece.size());
    exchange.pause(pause);
    const Json choice{{"index", 0}, {"delta", {{"content", piece}}}, {"finish_reason", nullptr}};
    if (!event(Json::array({choice}), nullptr)) return;
  }
  const Json last{{"index", 0}, {"delta", Json::object()}, {"finish_reason", answer.finish_reason}};
  event(Json::array({last}), nullptr);
  event(Json::array(), usage);
  exchange.chunk("data: [DONE]\n\n");
  exchange.end_stream();
}

}  // namespace endpoint
