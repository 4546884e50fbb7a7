#include "tovren_mapstead/engines/http/secrets.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>

#include "engines/http/redaction.hpp"
#include "engines/http/text.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// A server that quotes JSON inside JSON escapes twice, rarely three times. The bound keeps a
// hostile text from asking for a level per character.
constexpr std::size_t ESCAPE_LEVELS = 4;

// One is free of the secrets in practice; a secret that is part of them all is cut out.
constexpr std::array<std::string_view, 3> MASKS{"***", "[redacted]", "#"};

// A text that spells secrets anew however often they are cut out is made for that; none of it is
// worth showing.
constexpr int MOST_ROUNDS = 8;

// How much of a text is searched at a time, in bytes.
constexpr std::size_t WINDOW = std::size_t{128} << 10U;

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
    if (secret.empty() || std::ranges::find(all, secret) != all.end()) continue;
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

// Finds a string in linear time, overlapping occurrences too (the search of Knuth, Morris and
// Pratt, where memmem cannot tell).
class Needle {
 public:
  explicit Needle(std::string text) : _text(std::move(text)), _borders(_text.size() + 1, 0) {
    for (std::size_t n = 1; n < _text.size(); ++n) _borders[n + 1] = matched(_borders[n], _text[n]);
  }

  [[nodiscard]] std::size_t size() const noexcept { return _text.size(); }

  // Where it occurs in `text`, in order, occurrences that touch joined; for a text that was cut,
  // the start of it at the end, too.
  [[nodiscard]] std::vector<Span> find_in(std::string_view text, Tail tail) const;

 private:
  // How many of its characters end a text in which `before` of them were followed by `next`.
  [[nodiscard]] std::size_t matched(std::size_t before, char next) const {
    while (before > 0 && (before == _text.size() || _text[before] != next)) {
      before = _borders[before];
    }
    return before + (_text[before] == next ? 1 : 0);
  }

  std::string _text;
  std::vector<std::size_t> _borders;  // of each start of it, the longest other start that ends it
};

std::vector<Span> Needle::find_in(std::string_view text, Tail tail) const {
  // To begin a search costs as much as to look at so many characters.
  constexpr std::size_t PATIENCE = 64;
  std::vector<Span> found;
  std::size_t at = 0;
  while (const void* const first =
             memmem(text.data() + at, text.size() - at, _text.data(), size())) {
    at = static_cast<std::size_t>(static_cast<const char*>(first) - text.data());
    std::size_t length = 0;
    for (std::size_t idle = at + size(); at < std::min(idle, text.size()); ++at) {
      length = matched(length, text[at]);
      if (length < size()) continue;
      const std::size_t end = at + 1;
      if (found.empty() || found.back().end < end - size()) {
        found.push_back({.begin = end - size(), .end = end});
      }
      found.back().end = end;
      idle = end + std::max(size(), PATIENCE);
    }
    at -= length % size();
  }
  if (tail == Tail::whole) return found;
  std::size_t length = 0;
  for (const char c : text.substr(text.size() - std::min(text.size(), size() - 1))) {
    length = matched(length, c);
  }
  if (length > SHOWN_START) found.push_back({.begin = text.size() - length, .end = text.size()});
  return found;
}

// The value of a hexadecimal digit; 16 for any other character.
constexpr std::uint32_t digit_of(char c) noexcept {
  const char lower = c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
  if (lower >= 'a' && lower <= 'f') return static_cast<std::uint32_t>(lower - 'a') + 10;
  return c >= '0' && c <= '9' ? static_cast<std::uint32_t>(c - '0') : 16;
}

// The byte that the percent escape at the start of `text` stands for.
Character read_percent(std::string_view text) noexcept {
  if (text.size() < 3) return {};
  const std::uint32_t high = digit_of(text[1]);
  const std::uint32_t low = digit_of(text[2]);
  if (high > 15 || low > 15) return {};
  return {.code_point = high * 16 + low, .width = 3};
}

// Whether `text`, which begins with the sign of an escape, may go on where it was cut.
bool is_half(std::string_view text) noexcept {
  constexpr std::string_view UNIT = "\\uXXXX";
  if (text[0] == '%') return text.size() < 3;
  const std::string_view low =
      text.size() < UNIT.size() || !is_high_half(read_escape(text).code_point)
          ? text
          : text.substr(UNIT.size());
  return low.size() < UNIT.size() && low.substr(0, 2) == UNIT.substr(0, low.size()).substr(0, 2);
}

// What follows a piece of text that is looked at.
enum class Next { end, cut, more };

// A text with one level of escapes undone, those of JSON strings and of URLs (RFC 3986, section
// 2.1), and where its characters came from.
class Unescaped {
 public:
  // Reads another source, in the memory that it has. Returns whether that held escapes.
  bool assign(std::string_view source, Next next);

  [[nodiscard]] const std::string& text() const noexcept { return _text; }

  // Makes pieces of the text, which are in order, those of the source behind them. Escapes are
  // taken whole, and so is half of one where the source was cut.
  void map_to_source(std::vector<Span>& spans) const;

 private:
  // An escape: `width` bytes from `from` on in the source became those from `to` to `end`.
  struct Jump {
    std::size_t to;
    std::size_t end;
    std::size_t from;
    std::size_t width;
  };

  std::string _text;
  std::vector<Jump> _jumps;
  std::size_t _source_end = 0;
};

bool Unescaped::assign(std::string_view source, Next next) {
  _text.clear();
  _jumps.clear();
  _source_end = source.size();
  std::size_t copied = 0;
  for (std::size_t at = 0;; ++at) {
    const auto* const sign = std::find_if(source.begin() + at, source.end(),
                                          [](char c) { return c == '\\' || c == '%'; });
    if (sign == source.end()) break;
    at = static_cast<std::size_t>(sign - source.begin());
    const std::string_view rest(sign, source.end());
    const bool half = next != Next::end && is_half(rest);
    const auto [code_point, width] = half           ? Character{.width = rest.size()}
                                     : *sign == '%' ? read_percent(rest)
                                                    : read_escape(rest);
    if (width == 0) continue;
    _text.append(source.substr(copied, at - copied));
    const std::size_t to = _text.size();
    if (half) {
      if (next == Next::more) _source_end = at;
    } else if (*sign == '%' || code_point < 0x80) {
      _text += static_cast<char>(code_point);
    } else {
      append_utf8(_text, code_point);
    }
    _jumps.push_back({.to = to, .end = _text.size(), .from = at, .width = width});
    copied = at + width;
    at = copied - 1;
  }
  _text.append(source.substr(copied));
  return !_jumps.empty();
}

void Unescaped::map_to_source(std::vector<Span>& spans) const {
  auto after = _jumps.begin();
  const auto map = [&](std::size_t at, bool past) {
    while (after != _jumps.end() && after->to <= at) ++after;
    if (after == _jumps.begin()) return at + (past ? 1 : 0);
    const Jump& jump = *std::prev(after);
    if (at < jump.end) return jump.from + (past ? jump.width : 0);
    return jump.from + jump.width + (at - jump.end) + (past ? 1 : 0);
  };
  for (Span& span : spans) {
    span.begin = map(span.begin, false);
    span.end = span.end == _text.size() ? _source_end : map(span.end - 1, true);
  }
}

// What a search looks for, and how deep.
struct Needles {
  explicit Needles(const Secrets& secrets);

  std::vector<Needle> plain;
  std::vector<Needle> unescaped;  // those that hold escapes, these undone
  std::size_t levels = 0;
  std::size_t longest = 0;
};

// Undoing escapes undoes those that a secret holds, too, at the latest after as many levels more.
Needles::Needles(const Secrets& secrets) {
  constexpr std::size_t LEAST = 3;  // what is shorter is to be met in any text
  Unescaped less;
  for (const std::string& secret : with_base64(secrets)) {
    std::string bare = secret;
    std::size_t level = 0;
    for (; level < ESCAPE_LEVELS; ++level) {
      if (!less.assign(bare, Next::end)) break;
      bare = less.text();
    }
    if (bare.size() < LEAST) level = 0;
    if (level > 0) unescaped.emplace_back(std::move(bare));
    levels = std::max(levels, ESCAPE_LEVELS + level);
    plain.emplace_back(secret);
    longest = std::max(longest, secret.size());
  }
}

// Adds `more` to `spans`, both in order, and joins those that touch.
void add(std::vector<Span>& spans, const std::vector<Span>& more) {
  if (more.empty()) return;
  const auto before = static_cast<std::ptrdiff_t>(spans.size());
  spans.insert(spans.end(), more.begin(), more.end());
  std::ranges::inplace_merge(spans, spans.begin() + before, {}, &Span::begin);
  auto last = spans.begin();
  for (const Span& span : spans) {
    if (span.begin <= last->end) {
      last->end = std::max(last->end, span.end);
    } else {
      *++last = span;
    }
  }
  spans.erase(std::next(last), spans.end());
}

// What is found in a part of a text.
struct Found {
  std::vector<Span> spans;
  std::size_t settled;  // nothing that begins before is still to be found
};

// Undoes the escapes of `part` level by level in `levels` and searches each.
Found search(std::string_view part, const Needles& needles, Next next,
             std::vector<Unescaped>& levels) {
  const auto text = [&](std::size_t level) {
    return level == 0 ? part : std::string_view(levels[level - 1].text());
  };
  std::size_t level = 0;
  while (level < levels.size() && levels[level].assign(text(level), next)) ++level;
  // What begins so far from the end of the last level ends inside it, and of the others as well,
  // since they are longer.
  const std::size_t least = text(level).size();
  std::vector<Span> settled{{.begin = least - std::min(least, needles.longest), .end = least}};
  std::vector<Span> spans;
  const Tail tail = next == Next::cut ? Tail::cut : Tail::whole;
  for (;; --level) {
    for (const Needle& needle : needles.plain) add(spans, needle.find_in(text(level), tail));
    if (level == 0) break;
    for (const Needle& needle : needles.unescaped) add(spans, needle.find_in(text(level), tail));
    levels[level - 1].map_to_source(spans);
    levels[level - 1].map_to_source(settled);
  }
  return {.spans = std::move(spans), .settled = least > needles.longest ? settled[0].begin : 0};
}

// `text` with a mask in place of every piece of it that spells a secret; nothing when there is
// none. The tables of a search are several times as large as what is searched, so that is one
// window after the other. The next begins where no level has an escape that began before, and goes
// back far enough that what the end of a window cuts is whole in the next.
std::optional<std::string> masked(std::string_view text, const Needles& needles, Tail tail,
                                  std::string_view mask) {
  std::string out;
  std::size_t copied = 0;
  bool any = false;
  std::vector<Span> spans;
  std::vector<Unescaped> levels(needles.levels);
  std::size_t window = WINDOW;
  for (std::size_t begin = 0; begin < text.size();) {
    const bool last = text.size() - begin <= window;
    const Next next = !last ? Next::more : tail == Tail::cut ? Next::cut : Next::end;
    Found found = search(text.substr(begin, window), needles, next, levels);
    if (!last && found.settled < window / 2) {
      window *= 2;
      continue;
    }
    for (Span& span : found.spans) span = {.begin = span.begin + begin, .end = span.end + begin};
    add(spans, found.spans);
    begin = last ? text.size() : begin + found.settled;
    window = WINDOW;
    // What the next window may still make longer stays.
    auto open = spans.begin();
    for (; open != spans.end() && (last || open->end < begin); ++open) {
      if (!any) out.reserve(text.size());
      any = true;
      out.append(text, copied, open->begin - copied).append(mask);
      copied = open->end;
    }
    spans.erase(spans.begin(), open);
  }
  if (!any) return std::nullopt;
  return std::move(out.append(text.substr(copied)));
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
  const Needles needles(plain);
  for (const std::string_view mask : MASKS) {
    std::optional<std::string> out = masked(text, needles, tail, mask);
    if (!out) return std::string(text);
    if (!masked(*out, needles, tail, "")) return *std::move(out);
  }
  // What was apart may spell a secret once it meets, so cut until nothing is left to cut.
  std::string out(text);
  for (int round = 0; round < MOST_ROUNDS; ++round) {
    std::optional<std::string> less = masked(out, needles, tail, "");
    if (!less) return out;
    out = *std::move(less);
  }
  return {};
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
