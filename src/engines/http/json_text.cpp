#include "engines/http/json_text.hpp"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include <nlohmann/json.hpp>
#include <simdjson.h>

#include "tovren_mapstead/engines/http/errors.hpp"

namespace tovren_mapstead::engines::http {
namespace {

using Json = nlohmann::ordered_json;

// Deeper than any protocol's request, and far from the end of the stack.
constexpr int MAX_DEPTH = 256;

// What stands after the backslash for each byte: 0 nothing (it stands for itself), 'u' four digits.
constexpr std::array<char, 256> ESCAPES = [] {
  std::array<char, 256> table{};
  for (std::size_t c = 0; c < 0x20; ++c) table.at(c) = 'u';
  table['\b'] = 'b';
  table['\f'] = 'f';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['"'] = '"';
  table['\\'] = '\\';
  return table;
}();

// Strings are escaped by the piece, so that the room for it is known and small.
constexpr std::size_t PIECE = 512;
constexpr std::size_t LONGEST_ESCAPE = 6;

// How many of the eight bytes of a little-endian word come before the first that needs an escape.
// (x < n shows in the top bit of (x - n) & ~x, exactly so for the first byte that is; bytes above
// 0x7F never do.)
std::size_t clean_bytes(std::uint64_t word) {
  constexpr std::uint64_t EACH = 0x0101010101010101;
  const auto less = [](std::uint64_t bytes, std::uint64_t n) {
    return (bytes - EACH * n) & ~bytes;
  };
  const std::uint64_t found =
      less(word, 0x20) | less(word ^ (EACH * '"'), 1) | less(word ^ (EACH * '\\'), 1);
  return static_cast<std::size_t>(std::countr_zero(found & (EACH * 0x80))) / 8;
}

// Writes `text` with its escapes to `out` and returns where that ended.
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

class Writer {
 public:
  void value(const Json& json);

  Writer() { _out.reserve(PIECE); }

  [[nodiscard]] std::string take() { return std::move(_out); }

 private:
  // The way down to the value in hand, for error texts; links live on the stack.
  struct Place {
    const Place* above;
    std::string_view name;
    std::size_t index;
  };

  void value(const Json& json, const Place* place, int depth);
  void string(std::string_view text, const Place* place);
  void real(double number, const Place* place);

  template <class Integer>
  void integer(Integer number) {
    std::array<char, 24> digits{};
    _out.append(digits.data(),
                std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr);
  }

  [[noreturn]] static void refuse(const std::string& what, const Place* place);

  std::string _out;
};

void Writer::refuse(const std::string& what, const Place* place) {
  std::string path;
  for (; place != nullptr; place = place->above) {
    path.insert(0, place->name.empty() ? std::to_string(place->index) : std::string(place->name));
    path.insert(path.begin(), '/');
  }
  throw HttpFailure("request cannot be written: " + what + (path.empty() ? "" : " at " + path));
}

void Writer::string(std::string_view text, const Place* place) {
  if (!simdjson::validate_utf8(text.data(), text.size())) {
    refuse("text that is not valid UTF-8", place);
  }
  // Room for a text with few escapes, as prompts are: to grow to it would write it twice.
  _out.reserve(_out.size() + text.size() + text.size() / 8 + 2);
  _out += '"';
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, PIECE);
    std::array<char, PIECE * LONGEST_ESCAPE>
        escaped;  // NOLINT(*-member-init): filled as far as used
    _out.append(escaped.data(), escape(piece, escaped.data()));
    text.remove_prefix(piece.size());
  }
  _out += '"';
}

void Writer::real(double number, const Place* place) {
  if (!std::isfinite(number)) refuse("a number that is not finite", place);
  std::array<char, 32> digits{};
  const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  const std::string_view shortest(digits.data(), end);
  _out += shortest;
  // A real stays one: strictly typed servers tell 0.0 from 0.
  if (shortest.find_first_of(".e") == std::string_view::npos) _out += ".0";
}

void Writer::value(const Json& json, const Place* place, int depth) {
  if (depth > MAX_DEPTH) refuse("values nested too deeply", nullptr);
  char separator = 0;
  const auto separate = [&] {
    if (separator != 0) _out += separator;
    separator = ',';
  };
  switch (json.type()) {
    case Json::value_t::null:
      _out += "null";
      return;
    case Json::value_t::boolean:
      _out += json.get<bool>() ? "true" : "false";
      return;
    case Json::value_t::number_integer:
      return integer(json.get<std::int64_t>());
    case Json::value_t::number_unsigned:
      return integer(json.get<std::uint64_t>());
    case Json::value_t::number_float:
      return real(json.get<double>(), place);
    case Json::value_t::string:
      return string(json.get_ref<const std::string&>(), place);
    case Json::value_t::array:
      _out += '[';
      for (std::size_t i = 0; i < json.size(); ++i) {
        separate();
        const Place here{.above = place, .name = {}, .index = i};
        value(json[i], &here, depth + 1);
      }
      _out += ']';
      return;
    case Json::value_t::object:
      _out += '{';
      for (const auto& [name, member] : json.get_ref<const Json::object_t&>()) {
        separate();
        const Place here{.above = place, .name = name, .index = 0};
        string(name, place);
        _out += ':';
        value(member, &here, depth + 1);
      }
      _out += '}';
      return;
    case Json::value_t::binary:
    case Json::value_t::discarded:
      break;
  }
  refuse("a value that JSON has no form for", place);
}

void Writer::value(const Json& json) {
  value(json, nullptr, 0);
}

}  // namespace

std::string write_json(const Json& value) {
  Writer writer;
  writer.value(value);
  return writer.take();
}

}  // namespace tovren_mapstead::engines::http
