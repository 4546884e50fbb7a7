#include "tovren_mapstead/engines/http/events.hpp"

#include <cstddef>
#include <optional>
#include <string>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/utf8.hpp"

#include "engines/http/lines.hpp"
#include "text/trim.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// The client's own limit of a line, by default.
constexpr std::size_t MAX_LINE_BYTES = std::size_t{16} << 20U;

enum class Line { event, end, invalid, other };

// Decodes one line, whose event is then in `event`. Inlined, because it runs for each line.
[[gnu::always_inline]] inline Line decode(std::string_view raw, JsonReader& json,
                                          JsonValue& event) {
  constexpr std::string_view PREFIX = "data:";
  const auto other = [&] { return raw.empty() || is_utf8(raw) ? Line::other : Line::invalid; };
  const std::string_view line = trim(raw);
  if (!line.starts_with(PREFIX)) return other();
  std::string_view payload = line.substr(PREFIX.size());
  if (payload.starts_with(' ')) payload.remove_prefix(1);  // usual, and cheaper than `trim`
  payload = trim(payload);
  if (payload == "[DONE]") return Line::end;
  event = json.parse_padded(payload);
  if (event.kind() == JsonValue::Kind::object) return Line::event;
  return event.present() ? Line::other : other();
}

}  // namespace

JsonValue EventReader::next() {
  JsonValue event;
  while (const std::optional<std::string_view> line = _reply.next_line()) {
    switch (decode(*line, _json, event)) {
      case Line::event:
        return event;
      case Line::end:
        return {};
      case Line::invalid:
        throw HttpFailure("stream is not valid UTF-8; ask again, without streaming if it stays so");
      case Line::other:
        break;
    }
  }
  return {};
}

struct EventDecoder::State {
  LineBuffer lines;
  JsonReader json;
  bool ended = false;
};

EventDecoder::EventDecoder() : _state(std::make_unique<State>()) {}

EventDecoder::EventDecoder(EventDecoder&&) noexcept = default;
EventDecoder& EventDecoder::operator=(EventDecoder&&) noexcept = default;
EventDecoder::~EventDecoder() = default;

void EventDecoder::feed(std::string_view bytes) {
  if (_state->ended) return;
  _state->lines.to_fill().append(bytes);
  _state->lines.filled();
}

JsonValue EventDecoder::next() {
  JsonValue event;
  while (!_state->ended) {
    const std::optional<std::string_view> line = _state->lines.next();
    if (!line) {
      _state->ended = _state->lines.pending() > MAX_LINE_BYTES;
      return {};
    }
    const Line kind = decode(*line, _state->json, event);
    if (kind == Line::event) return event;
    _state->ended = kind == Line::end;
  }
  return {};
}

}  // namespace tovren_mapstead::engines::http
