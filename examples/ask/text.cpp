#include "ask/text.hpp"

#include <algorithm>

#include "tovren_mapstead/engines/http/utf8.hpp"

namespace ask {
namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";

unsigned char byte_at(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// Returns how many bytes a character takes that begins with `lead`.
std::size_t length_after(unsigned char lead) {
  return lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

// ASCII's and those of ISO 8859-1, which UTF-8 writes as C2 80 to C2 9F.
bool is_control(std::string_view character) {
  const unsigned char lead = byte_at(character, 0);
  return lead < 0x20 || lead == 0x7F || (lead == 0xC2 && byte_at(character, 1) < 0xA0);
}

}  // namespace

std::string printable(std::string_view text, Lines lines) {
  std::string safe;
  safe.reserve(text.size());
  while (!text.empty()) {
    const char c = text.front();
    const std::string_view character = text.substr(0, length_after(byte_at(text, 0)));
    if (lines == Lines::keep && (c == '\n' || c == '\t' || c == '\r')) {
      if (c != '\r') safe += c;
      text.remove_prefix(1);
    } else if (!tovren_mapstead::engines::http::is_utf8(character)) {
      safe += REPLACEMENT;
      text.remove_prefix(1);
    } else {
      safe += is_control(character) ? REPLACEMENT : character;
      text.remove_prefix(character.size());
    }
  }
  return safe;
}

std::string_view whole_characters(std::string_view text) {
  for (std::size_t back = 1; back <= std::min<std::size_t>(text.size(), 3); ++back) {
    const std::size_t at = text.size() - back;
    const unsigned char byte = byte_at(text, at);
    if (byte >= 0x80 && byte < 0xC0) continue;  // not the first of its character
    // The first half of a pair is ED A0 to ED AF and one more byte.
    const bool half = byte == 0xED && back > 1 && (byte_at(text, at + 1) & 0xF0U) == 0xA0;
    return length_after(byte) > back || half ? text.substr(0, at) : text;
  }
  return text;
}

std::string grouped(std::size_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
  return digits;
}

}  // namespace ask
