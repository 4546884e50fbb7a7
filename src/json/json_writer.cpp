#include "tovren_mapstead/engines/http/json_writer.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "tovren_mapstead/engines/http/utf8.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// The letter after the backslash for each byte: 0 if it needs no escape, 'u' for four digits.
constexpr std::array<char, 256> ESCAPES = [] {
  std::array<char, 256> table{};
  for (std::size_t c = 0; c < 0x20; ++c) table.at(c) = 'u';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['"'] = '"';
  table['\\'] = '\\';
  return table;
}();

// Strings are escaped in pieces of this size, to keep the buffer small.
constexpr std::size_t PIECE = 512;
constexpr std::size_t LONGEST_ESCAPE = 6;

// Returns the number of bytes before the first that needs an escape, in a little-endian word of
// eight. The top bit of (x - n) & ~x is set if x < n. It is exact up to the first such byte, and
// never set for bytes above 0x7F.
std::size_t clean_bytes(std::uint64_t word) {
  constexpr std::uint64_t EACH = 0x0101010101010101;
  const auto less = [](std::uint64_t bytes, std::uint64_t n) {
    return (bytes - EACH * n) & ~bytes;
  };
  const std::uint64_t found =
      less(word, 0x20) | less(word ^ (EACH * '"'), 1) | less(word ^ (EACH * '\\'), 1);
  return static_cast<std::size_t>(std::countr_zero(found & (EACH * 0x80))) / 8;
}

// Writes `text` to `out`, escaped. Returns the end of the output.
char* escape(std::string_view text, char* out) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  for (std::size_t i = 0; i < text.size();) {
    if constexpr (std::endian::native == std::endian::little) {
      std::uint64_t word = 0;
      if (text.size() - i >= sizeof word) {
        std::memcpy(&word, text.data() + i, sizeof word);
        std::memcpy(out, &word, sizeof word);
        const std::size_t clean = clean_bytes(word);
        i += clean;
        out += clean;
        if (clean == sizeof word) continue;
      }
    }
    const auto byte = static_cast<unsigned char>(text[i++]);
    const char letter = ESCAPES[byte];
    if (letter == 0) {
      *out++ = static_cast<char>(byte);
      continue;
    }
    *out++ = '\\';
    *out++ = letter;
    if (letter != 'u') continue;
    *out++ = '0';
    *out++ = '0';
    *out++ = DIGITS[byte >> 4U];
    *out++ = DIGITS[byte & 0xFU];
  }
  return out;
}

// Returns whether `text` is short and has neither an escape nor a byte beyond ASCII, like most
// names and settings.
bool is_plain(std::string_view text) {
  constexpr std::size_t SHORT = 32;
  return text.size() <= SHORT && std::ranges::all_of(text, [](char c) {
           return c >= ' ' && c <= '~' && c != '"' && c != '\\';
         });
}

}  // namespace

JsonObject::JsonObject() {
  // Room for a small request, whose cost is mostly allocations.
  _text.reserve(PIECE);
  _text += '{';
  _open.reserve(4);
  _open.emplace_back();
}

void JsonObject::note_fault(std::string_view what) {
  if (!_fault.empty()) return;
  _fault = std::string(what).append(" at ");
  for (const Open& open : _open) {
    _fault += '/';
    _fault += open.end == ']'           ? std::to_string(open.elements - 1)
              : is_utf8(open.last_name) ? open.last_name
                                        : "?";
  }
}

void JsonObject::append_string(std::string_view text, std::string_view what) {
  if (is_plain(text)) {
    (_text += '"').append(text) += '"';
    return;
  }
  if (!is_utf8(text)) return note_fault(std::string(what) + " that is not valid UTF-8");
  // Room for a text with few escapes, such as a prompt. Growing later would copy the text.
  _text.reserve(_text.size() + text.size() + text.size() / 8 + 2);
  _text += '"';
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, PIECE);
    std::array<char, PIECE * LONGEST_ESCAPE> escaped;  // NOLINT(*-member-init): written before read
    _text.append(escaped.data(), escape(piece, escaped.data()));
    text.remove_prefix(piece.size());
  }
  _text += '"';
}

void JsonObject::begin_value(std::string_view name) {
  Open& inside = _open.back();
  if (inside.elements++ > 0) _text += ',';
  if (inside.end == ']') return;
  inside.last_name = name;
  append_string(name, "a name");
  _text += ':';
}

JsonObject& JsonObject::append(std::string_view name, std::string_view json) {
  begin_value(name);
  _text += json;
  return *this;
}

JsonObject& JsonObject::add(std::string_view name, std::string_view text) {
  begin_value(name);
  append_string(text, "text");
  return *this;
}

JsonObject& JsonObject::add(std::string_view name, double number) {
  begin_value(name);
  if (!std::isfinite(number)) note_fault("a number that is not finite");
  _text += json_number(number);
  return *this;
}

JsonObject& JsonObject::begin(std::string_view name, char bracket) {
  append(name, {&bracket, 1});
  _open.push_back({.elements = 0, .end = bracket == '[' ? ']' : '}'});
  return *this;
}

JsonObject& JsonObject::end() {
  if (_open.size() > 1) {
    _text += _open.back().end;
    _open.pop_back();
  }
  return *this;
}

std::string JsonObject::text() && {
  if (!_fault.empty()) return {};
  while (_open.size() > 1) end();
  _text += _open.back().end;
  return std::move(_text);
}

std::string json_number(double number) {
  std::array<char, 32> digits{};
  char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  std::string text(digits.data(), end);
  // Servers with strict types distinguish 0.0 from 0.
  if (text.find_first_of(".en") == std::string::npos) text += ".0";
  return text;
}

}  // namespace tovren_mapstead::engines::http
