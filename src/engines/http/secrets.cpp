#include "tovren_mapstead/engines/http/secrets.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

#include "engines/http/redaction.hpp"
#include "engines/http/text.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// A server that quotes JSON inside JSON escapes twice, rarely three times. The bound keeps a
// hostile text from asking for a level per character.
constexpr int ESCAPE_LEVELS = 4;

// One is free of the secrets in practice; a secret that is part of them all is cut out.
constexpr std::array<std::string_view, 3> MASKS{"***", "[redacted]", "#"};

// Too short a secret in Base64 is to be met in any text.
constexpr std::size_t LEAST_IN_BASE64 = 8;

// The characters of `bytes` in Base64, as far as they do not depend on what stands around them when
// `before` bytes (0 to 2) precede it in its group of three. RFC 4648, `specials`: the last two
// digits.
std::string base64(std::string_view bytes, std::size_t before, std::string_view specials) {
  std::string out;
  for (std::size_t bit = (6 - before * 8 % 6) % 6; bit + 6 <= bytes.size() * 8; bit += 6) {
    const auto byte = [&](std::size_t at) {
      return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U;
    };
    const unsigned pair = (byte(bit / 8) << 8U) | byte(bit / 8 + 1);
    const unsigned digit = (pair >> (10 - bit % 8)) & 0x3FU;
    out += static_cast<char>(digit < 26   ? 'A' + digit
                             : digit < 52 ? 'a' + digit - 26
                             : digit < 62 ? '0' + digit - 52
                                          : static_cast<unsigned char>(specials[digit - 62]));
  }
  return out;
}

// The secrets, and those in Base64, whatever is encoded with them: a user's name before a password.
Secrets with_base64(const Secrets& secrets) {
  Secrets all;
  for (const std::string& secret : secrets) {
    if (secret.empty()) continue;
    all.push_back(secret);
    for (std::size_t before = 0; before < 3 && secret.size() >= LEAST_IN_BASE64; ++before) {
      for (const char* const specials : {"+/", "-_"}) {
        std::string coded = base64(secret, before, specials);
        if (std::ranges::find(all, coded) == all.end()) all.push_back(std::move(coded));
      }
    }
  }
  return all;
}

// How servers spell what they echo: in JSON strings, and in URLs (RFC 3986, section 2.1).
enum class Escapes { json, percent };

// The byte that the percent escape at the start of `text` stands for.
Character read_percent(std::string_view text) noexcept {
  constexpr std::size_t WIDTH = 3;
  if (text.size() < WIDTH || text[0] != '%') return {};
  std::uint32_t byte = 0;
  const char* const end = text.data() + WIDTH;
  if (std::from_chars(text.data() + 1, end, byte, 16).ptr != end) return {};
  return {.code_point = byte, .width = WIDTH};
}

// Whether `text`, which begins like an escape, may go on where it was cut.
bool is_half(std::string_view text, Escapes escapes) noexcept {
  constexpr std::string_view UNIT = "\\uXXXX";
  if (escapes == Escapes::percent) return text.size() < 3;
  const std::string_view low =
      text.size() < UNIT.size() || !is_high_half(read_escape(text).code_point)
          ? text
          : text.substr(UNIT.size());
  return low.size() < UNIT.size() && low.substr(0, 2) == UNIT.substr(0, low.size()).substr(0, 2);
}

// A text with one level of escapes undone, and where its characters came from.
class Unescaped {
 public:
  Unescaped(std::string_view source, Escapes escapes, Tail tail);

  [[nodiscard]] const std::string& text() const noexcept { return _text; }

  [[nodiscard]] bool changed() const noexcept { return !_jumps.empty(); }

  // The piece of the source behind a piece of the text, escapes taken whole, and so is half of one
  // at the end.
  [[nodiscard]] Span source_of(Span span) const {
    return {.begin = map(span.begin, false),
            .end = span.end == _text.size() ? _source_size : map(span.end - 1, true)};
  }

 private:
  // An escape: `width` bytes from `from` on in the source became those from `to` to `end`.
  struct Jump {
    std::size_t to;
    std::size_t end;
    std::size_t from;
    std::size_t width;
  };

  [[nodiscard]] std::size_t map(std::size_t at, bool past) const;

  std::string _text;
  std::vector<Jump> _jumps;
  std::size_t _source_size;
};

Unescaped::Unescaped(std::string_view source, Escapes escapes, Tail tail)
    : _source_size(source.size()) {
  const bool json = escapes == Escapes::json;
  const char sign = json ? '\\' : '%';
  std::size_t copied = 0;
  for (std::size_t at = source.find(sign); at != std::string_view::npos;
       at = source.find(sign, at)) {
    const std::string_view rest = source.substr(at);
    const bool half = tail == Tail::cut && is_half(rest, escapes);
    const auto [code_point, width] = half   ? Character{.width = rest.size()}
                                     : json ? read_escape(rest)
                                            : read_percent(rest);
    if (width == 0) {
      ++at;
      continue;
    }
    _text.append(source, copied, at - copied);
    const std::size_t to = _text.size();
    if (json && !half) append_utf8(_text, code_point);
    if (!json && !half) _text += static_cast<char>(code_point);
    _jumps.push_back({.to = to, .end = _text.size(), .from = at, .width = width});
    at += width;
    copied = at;
  }
  _text.append(source.substr(copied));
}

std::size_t Unescaped::map(std::size_t at, bool past) const {
  const auto after = std::ranges::upper_bound(_jumps, at, {}, &Jump::to);
  if (after == _jumps.begin()) return at + (past ? 1 : 0);
  const Jump& jump = *std::prev(after);
  if (at < jump.end) return jump.from + (past ? jump.width : 0);
  return jump.from + jump.width + (at - jump.end) + (past ? 1 : 0);
}

void find_all(std::string_view text, const Secrets& secrets, Tail tail, std::vector<Span>& found) {
  for (const std::string& secret : secrets) {
    if (secret.empty()) continue;
    // From the next character on, not from the end of the match: occurrences overlap.
    for (std::size_t at = text.find(secret); at != std::string_view::npos;
         at = text.find(secret, at + 1)) {
      found.push_back({.begin = at, .end = at + secret.size()});
    }
    if (tail == Tail::whole) continue;
    const std::string_view start = secret;
    for (std::size_t n = std::min(start.size() - 1, text.size()); n > SHOWN_START; --n) {
      if (!text.ends_with(start.substr(0, n))) continue;
      found.push_back({.begin = text.size() - n, .end = text.size()});
      break;
    }
  }
}

// As `find_all`, but in up to so many levels of escaping, too, whichever they are.
void find_spelt(std::string_view text, const Secrets& secrets, Tail tail, int levels,
                std::vector<Span>& found) {
  find_all(text, secrets, tail, found);
  if (levels == 0) return;
  for (const Escapes escapes : {Escapes::json, Escapes::percent}) {
    const Unescaped next(text, escapes, tail);
    if (!next.changed()) continue;
    std::vector<Span> deeper;
    find_spelt(next.text(), secrets, tail, levels - 1, deeper);
    for (const Span& span : deeper) found.push_back(next.source_of(span));
  }
}

// Every piece of `text` that spells a secret, in order, those that touch joined.
std::vector<Span> occurrences(std::string_view text, const Secrets& secrets, Tail tail) {
  std::vector<Span> found;
  find_spelt(text, secrets, tail, ESCAPE_LEVELS, found);
  std::ranges::sort(found, {}, &Span::begin);
  std::vector<Span> joined;
  for (const Span& span : found) {
    if (!joined.empty() && span.begin <= joined.back().end) {
      joined.back().end = std::max(joined.back().end, span.end);
    } else {
      joined.push_back(span);
    }
  }
  return joined;
}

std::string masked(std::string_view text, const std::vector<Span>& spans, std::string_view mask) {
  std::string out;
  std::size_t copied = 0;
  for (const Span& span : spans) {
    out.append(text, copied, span.begin - copied).append(mask);
    copied = span.end;
  }
  return out.append(text.substr(copied));
}

bool is_credential(std::string_view name) {
  constexpr std::array<std::string_view, 4> ENDINGS{"api-key", "subscription-key", "-token",
                                                    "-secret"};
  return std::ranges::any_of(ENDINGS, [&](auto ending) { return name.ends_with(ending); });
}

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

void add(Secrets& secrets, std::string_view value) {
  value = trimmed(value);
  if (!value.empty()) secrets.emplace_back(value);
}

void add_cookies(Secrets& secrets, std::string_view cookies) {
  while (!cookies.empty()) {
    const std::string_view cookie = cookies.substr(0, cookies.find(';'));
    cookies.remove_prefix(std::min(cookies.size(), cookie.size() + 1));
    add(secrets, cookie.substr(cookie.find('=') + 1));
  }
}

}  // namespace

std::string redact(std::string_view text, const Secrets& plain, Tail tail) {
  const Secrets secrets = with_base64(plain);
  const std::vector<Span> spans = occurrences(text, secrets, tail);
  if (spans.empty()) return std::string(text);
  std::string out;
  for (const std::string_view mask : MASKS) {
    out = masked(text, spans, mask);
    if (occurrences(out, secrets, tail).empty()) return out;
  }
  // What was apart may spell a secret once it meets, so cut until nothing is left to cut.
  out = text;
  for (std::vector<Span> rest = spans; !rest.empty(); rest = occurrences(out, secrets, tail)) {
    out = masked(out, rest, "");
  }
  return out;
}

std::string redact(std::string_view text, const Secrets& secrets) {
  return redact(text, secrets, Tail::whole);
}

Secrets secrets_of(const Headers& headers) {
  Secrets secrets;
  for (const auto& [name, value] : headers) {
    const std::string lower = lower_case(name);
    if (lower == "authorization" || lower == "proxy-authorization") {
      const std::string_view credential = trimmed(value);
      const std::size_t blank = credential.find_first_of(" \t");
      add(secrets, blank == std::string_view::npos ? credential : credential.substr(blank));
    } else if (lower == "cookie") {
      add_cookies(secrets, value);
    } else if (is_credential(lower)) {
      add(secrets, value);
    }
  }
  return secrets;
}

}  // namespace tovren_mapstead::engines::http
