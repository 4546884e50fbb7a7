#include "engines/llm/reply/repeated_event.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "tovren_mapstead/engines/http/utf8.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

constexpr std::size_t MAX_LEARNT_BYTES = 4096;
constexpr int MAX_CREDIT = 16;

// Returns the character that the escape "\c" stands for; 0 if it is no escape of one letter.
char escaped(char c) {
  constexpr std::string_view LETTERS = "\"\\/bfnrt";
  constexpr std::string_view CHARACTERS = "\"\\/\b\f\n\r\t";
  const std::size_t at = LETTERS.find(c);
  return at == std::string_view::npos ? '\0' : CHARACTERS[at];
}

// Appends the text of a JSON string whose inside is given. Returns false if it is none, or has an
// escape of four digits; a part may have been appended then.
bool append_unescaped(std::string_view inside, std::string& out) {
  bool ascii = true;
  for (std::size_t i = 0; i < inside.size(); ++i) {
    char c = inside[i];
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || byte < ' ') return false;
    ascii = ascii && byte < 0x80;
    if (c == '\\') {
      c = ++i < inside.size() ? escaped(inside[i]) : '\0';
      if (c == '\0') return false;
    }
    out += c;
  }
  return ascii || http::is_utf8(inside);
}

}  // namespace

bool RepeatedEvent::append_text(std::string_view payload, std::string& out) {
  const std::size_t around = _before.size() + _after.size();
  if (_before.empty() || payload.size() < around || !payload.starts_with(_before) ||
      !payload.ends_with(_after)) {
    return false;
  }
  const std::size_t size = out.size();
  if (!append_unescaped(payload.substr(_before.size(), payload.size() - around), out)) {
    out.resize(size);
    return false;
  }
  _credit = std::min(_credit + 1, MAX_CREDIT);
  return true;
}

// What looks like the text may be part of another string, or a member of another object. So the
// event is parsed once more with OTHER in that place: if OTHER is its text then, the place is
// right.
void RepeatedEvent::learn(std::string_view payload, const http::JsonValue& text,
                          http::JsonReader& reader) {
  constexpr std::string_view NAME = "\"content\"";
  constexpr std::string_view OTHER = "?";  // short: a longer variant would need a larger parser
  _before.clear();
  if (_credit == 0 || payload.size() > MAX_LEARNT_BYTES) return;
  if (text.empty() || text.text() == OTHER) return;
  const std::size_t name = payload.find(NAME);
  if (name == std::string_view::npos) return;
  const std::size_t quote = payload.find_first_not_of(": ", name + NAME.size());
  if (quote == std::string_view::npos || payload[quote] != '"') return;
  const std::size_t end = payload.find_first_of("\"\\", quote + 1);
  if (end == std::string_view::npos || payload[end] == '\\') return;
  --_credit;
  std::string before(payload.substr(0, quote + 1));
  std::string after(payload.substr(end));
  const http::JsonValue variant = reader.parse(before + std::string(OTHER) + after);
  if (_text_of(variant).text() != OTHER) return;
  _before = std::move(before);
  _after = std::move(after);
}

}  // namespace tovren_mapstead::engines::llm
