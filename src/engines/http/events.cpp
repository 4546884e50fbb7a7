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

enum class Line { payload, end, other };

// Tells what a line is, and cuts it down to its payload if it has one. Inlined, because it runs for
// each line.
[[gnu::always_inline]] inline Line classify(std::string_view& line) {
  constexpr std::string_view PREFIX = "data:";
  const std::string_view trimmed = trim(line);
  if (!trimmed.starts_with(PREFIX)) return Line::other;
  std::string_view payload = trimmed.substr(PREFIX.size());
  if (payload.starts_with(' ')) payload.remove_prefix(1);  // usual, and cheaper than `trim`
  line = trim(payload);
  return line == "[DONE]" ? Line::end : Line::payload;
}

JsonValue object_of(const JsonValue& value) {
  return value.kind() == JsonValue::Kind::object ? value : JsonValue();
}

void check_utf8(std::string_view text) {
  if (!text.empty() && !is_utf8(text)) {
    throw HttpFailure("stream is not valid UTF-8; ask again, without streaming if it stays so");
  }
}

}  // namespace

std::optional<std::string_view> EventReader::next_payload() {
  while (std::optional<std::string_view> line = _reply.next_line()) {
    switch (classify(*line)) {
      case Line::payload:
        return line;
      case Line::end:
        return std::nullopt;
      case Line::other:
        check_utf8(*line);
        break;
    }
  }
  return std::nullopt;
}

JsonValue EventReader::parse(std::string_view payload) {
  const JsonValue value = _json.parse_padded(payload);
  if (!value.present()) check_utf8(payload);
  return object_of(value);
}

JsonValue EventReader::next() {
  while (const std::optional<std::string_view> payload = next_payload()) {
    if (const JsonValue event = parse(*payload); event.present()) return event;
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
  while (!_state->ended) {
    std::optional<std::string_view> line = _state->lines.next();
    if (!line) {
      _state->ended = _state->lines.pending() > MAX_LINE_BYTES;
      return {};
    }
    const Line kind = classify(*line);
    _state->ended = kind == Line::end;
    if (kind != Line::payload) continue;
    if (const JsonValue event = object_of(_state->json.parse_padded(*line)); event.present()) {
      return event;
    }
  }
  return {};
}

}  // namespace tovren_mapstead::engines::http
