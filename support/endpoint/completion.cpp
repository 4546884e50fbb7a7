#include "endpoint/completion.hpp"

#include <algorithm>
#include <vector>

namespace endpoint {
namespace {

// The answer in pieces of some bytes, the finish reason, the token counts and the end marker.
std::vector<std::string> events_of(const Json& model, const Json& usage, const Answer& answer) {
  constexpr std::size_t PIECE_BYTES = 24;
  std::vector<std::string> events;
  const auto add = [&](const Json& choices, const Json& counts) {
    const Json event{{"model", model}, {"choices", choices}, {"usage", counts}};
    events.push_back("data: " + event.dump() + "\n\n");
  };
  const auto choice = [](const Json& delta, const Json& finish_reason) {
    return Json::array({{{"index", 0}, {"delta", delta}, {"finish_reason", finish_reason}}});
  };
  for (std::string_view rest = answer.text; !rest.empty();) {
    const std::string_view piece = start_of(rest, PIECE_BYTES);
    rest.remove_prefix(piece.size());
    add(choice({{"content", piece}}, nullptr), nullptr);
  }
  add(choice(Json::object(), answer.finish_reason), nullptr);
  add(Json::array(), usage);
  events.emplace_back("data: [DONE]\n\n");
  return events;
}

}  // namespace

std::string_view start_of(std::string_view text, std::size_t bytes) {
  std::size_t size = std::min(bytes, text.size());
  while (size < text.size() && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) ++size;
  return text.substr(0, size);
}

void reply(loopback::Exchange& exchange, const Json& asked, const Answer& answer,
           std::chrono::milliseconds pause, std::size_t chunk_bytes) {
  const Json& model = asked.at("model");
  const Json usage{{"prompt_tokens", exchange.request().body.size() / BYTES_PER_TOKEN},
                   {"completion_tokens", answer.text.size() / BYTES_PER_TOKEN}};
  if (!asked.value("stream", false)) {
    const Json choice{{"index", 0},
                      {"message", {{"role", "assistant"}, {"content", answer.text}}},
                      {"finish_reason", answer.finish_reason}};
    const Json whole{{"model", model}, {"choices", Json::array({choice})}, {"usage", usage}};
    return exchange.reply(200, whole.dump());
  }
  exchange.start_stream();
  for (const std::string& event : events_of(model, usage, answer)) {
    exchange.pause(pause);
    for (std::string_view rest = event; !rest.empty();) {
      const std::string_view some = rest.substr(0, chunk_bytes);
      if (!exchange.chunk(some)) return;
      rest.remove_prefix(some.size());
    }
  }
  exchange.end_stream();
}

}  // namespace endpoint
