#include "json/json_mend.hpp"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <system_error>
#include <utility>

#include <nlohmann/json.hpp>

#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Half of a surrogate pair becomes MARK and a private-use character with its number. A MARK in the
// text is doubled, which is rare, because U+FFFF is no character.
constexpr std::string_view MARK = "\uFFFF";
constexpr std::uint32_t MARK_CODE_POINT = 0xFFFF;
constexpr std::uint32_t FIRST_HALF = 0xD800;
constexpr std::uint32_t FIRST_PRIVATE = 0xE000;

class Mender {
 public:
  explicit Mender(std::string_view text) : _rest(text) {}

  std::string mend() {
    while (!_rest.empty()) {
      if (_rest.front() == '"') {
        string();
      } else if (const std::size_t run = run_width(); run == 0) {
        copy(1);
      } else if (run == number_width()) {
        number(run);
      } else {
        copy(run);
      }
    }
    return std::move(_out);
  }

 private:
  void copy(std::size_t count) {
    _out.append(_rest.substr(0, count));
    _rest.remove_prefix(std::min(count, _rest.size()));
  }

  void string() {
    copy(1);
    while (!_rest.empty() && _rest.front() != '"') {
      if (const Character escape = read_escape(_rest); escape.width > 0) {
        if (is_high_half(escape.code_point) || is_low_half(escape.code_point)) {
          _out += MARK;
          append_utf8(_out, escape.code_point - FIRST_HALF + FIRST_PRIVATE);
          _rest.remove_prefix(escape.width);
          continue;
        }
        if (escape.code_point == MARK_CODE_POINT) _out += MARK;
        copy(escape.width);
      } else {
        if (_rest.starts_with(MARK)) _out += MARK;
        copy(std::max(read_utf8(_rest).width, std::size_t{1}));
      }
    }
    copy(1);
  }

  // Returns how many characters at the front can be part of a number.
  [[nodiscard]] std::size_t run_width() const {
    return std::min(_rest.find_first_not_of("0123456789+-.eE"), _rest.size());
  }

  // Returns the width of the number at the front; 0 if it is not one of RFC 8259.
  [[nodiscard]] std::size_t number_width() const {
    const auto at = [&](std::size_t i) { return i < _rest.size() ? _rest[i] : '\0'; };
    const auto digits = [&](std::size_t i) {
      while (at(i) >= '0' && at(i) <= '9') ++i;
      return i;
    };
    const std::size_t first = at(0) == '-' ? 1 : 0;
    std::size_t end = digits(first);
    if (end == first || (at(first) == '0' && end > first + 1)) return 0;
    if (at(end) == '.') {
      const std::size_t fraction = digits(end + 1);
      if (fraction == end + 1) return 0;
      end = fraction;
    }
    if (at(end) == 'e' || at(end) == 'E') {
      const std::size_t sign = at(end + 1) == '+' || at(end + 1) == '-' ? 1 : 0;
      const std::size_t exponent = digits(end + 1 + sign);
      if (exponent == end + 1 + sign) return 0;
      end = exponent;
    }
    return end;
  }

  void number(std::size_t width) {
    const bool fits = _rest.substr(0, width).find_first_of(".eE") == std::string_view::npos
                          ? fits_as<std::int64_t>(width) || fits_as<std::uint64_t>(width)
                          : fits_as<double>(width);
    const std::size_t next = std::min(_rest.find_first_not_of(" \t\r\n", width), _rest.size());
    const bool is_name = _rest.substr(next).starts_with(':');  // a number cannot be a name
    const bool change = !is_name && !fits && is_large(_rest.substr(0, width));
    if (change) _out += '"';
    copy(width);
    if (change) _out += '"';
  }

  template <class Number>
  [[nodiscard]] bool fits_as(std::size_t width) const {
    const std::string_view text = _rest.substr(0, width);
    Number number{};
    return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{};
  }

  // Returns whether a number out of range is too large. One that is too small is read as 0.
  [[nodiscard]] static bool is_large(std::string_view number) {
    const std::size_t end = std::min(number.find_first_of("eE"), number.size());
    const std::size_t point = std::min(number.find('.'), end);
    const std::size_t first = number.find_first_of("123456789");
    std::int64_t exponent = 0;
    const std::size_t digits = std::min(number.find_first_not_of("eE+", end), number.size());
    const auto read =
        std::from_chars(number.data() + digits, number.data() + number.size(), exponent);
    if (read.ec == std::errc::result_out_of_range) return number[digits] != '-';
    const auto whole_digits = static_cast<std::int64_t>(point) - static_cast<std::int64_t>(first);
    return exponent > -whole_digits;
  }

  std::string_view _rest;
  std::string _out;
};

}  // namespace

std::string mend(std::string_view text) {
  return Mender(text).mend();
}

void append_unmended(std::string& out, std::string_view text) {
  for (std::size_t mark = text.find(MARK); mark != std::string_view::npos; mark = text.find(MARK)) {
    out.append(text.substr(0, mark));
    text.remove_prefix(mark + MARK.size());
    if (text.starts_with(MARK)) {
      out += MARK;
      text.remove_prefix(MARK.size());
    } else {
      const Character half = read_utf8(text);
      append_utf8(out, half.code_point - FIRST_PRIVATE + FIRST_HALF);
      text.remove_prefix(half.width);
    }
  }
  out.append(text);
}

// nlohmann's parser reports where it stopped, and has no limit of depth but the memory.
JsonFault fault_of(std::string_view text) {
  const std::string mended = mend(text);
  try {
    const auto keep_nothing = [](auto&&...) { return false; };
    [[maybe_unused]] const auto nothing = nlohmann::json::parse(mended, keep_nothing);
    return JsonFault::too_deep;
  } catch (const nlohmann::json::parse_error& error) {
    return error.byte > mended.size() ? JsonFault::cut_short : JsonFault::wrong;
  } catch (const nlohmann::json::exception&) {  // a number out of range that was not mended
    return JsonFault::wrong;
  }
}

}  // namespace tovren_mapstead::engines::http
