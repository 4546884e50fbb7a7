#include "text/redaction.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "text/unescaped.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// A server that quotes JSON inside JSON escapes twice, rarely three times. The limit bounds the
// cost of a hostile text with a level per character.
constexpr std::size_t ESCAPE_LEVELS = 4;

// Usually one contains no secret. A secret that is part of all is removed instead.
constexpr std::array<std::string_view, 3> MASKS{"***", "[redacted]", "#"};

// A text that still contains secrets after this many removals is hostile, and is dropped.
constexpr int MAX_ROUNDS = 8;

// How much of a text is searched at a time, in bytes.
constexpr std::size_t WINDOW = std::size_t{128} << 10U;

// Shorter secrets in Base64 may occur in any text.
constexpr std::size_t LEAST_IN_BASE64 = 8;

// Returns the Base64 digits (RFC 4648) of `bytes` that do not depend on the bytes around it, if
// `before` bytes (0 to 2) precede it in its group of three. `specials` are the last two digits.
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

// Returns the secrets, also in Base64 at each offset: a user name may precede a password.
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

// Returns where `secret` occurs in `text`, in order, and joins adjacent occurrences. If `text` was
// cut, includes a start of `secret` at its end.
std::vector<Span> find_all(std::string_view text, std::string_view secret, Following following) {
  std::vector<Span> found;
  std::string_view rest = text;
  while (const void* const next = memmem(rest.data(), rest.size(), secret.data(), secret.size())) {
    const auto begin = static_cast<std::size_t>(static_cast<const char*>(next) - text.data());
    if (found.empty() || found.back().end < begin) found.push_back({.begin = begin, .end = begin});
    found.back().end = begin + secret.size();
    rest = text.substr(begin + 1);  // occurrences may overlap
  }
  if (following != Following::unknown) return found;
  for (std::size_t size = secret.size() - 1; size > SHOWN_START; --size) {
    if (!text.ends_with(secret.substr(0, size))) continue;
    found.push_back({.begin = text.size() - size, .end = text.size()});
    break;
  }
  return found;
}

// The strings to search for, and the number of escape levels.
struct Needles {
  explicit Needles(const Secrets& secrets);

  std::vector<std::string> plain;
  std::vector<std::string> unescaped;  // the secrets that contain escapes, without them
  std::size_t levels = 0;
  std::size_t longest = 0;
};

// Unescaping a text also unescapes a secret in it that contains escapes. The search finds the
// unescaped secret, in as many further levels as it has.
Needles::Needles(const Secrets& secrets) {
  constexpr std::size_t LEAST = 3;  // shorter strings may occur in any text
  Unescaped less;
  for (const std::string& secret : with_base64(secrets)) {
    std::string bare = secret;
    std::size_t level = 0;
    for (; level < ESCAPE_LEVELS; ++level) {
      if (!less.assign(bare, Following::nothing)) break;
      bare = less.text();
    }
    if (bare.size() < LEAST) level = 0;
    if (level > 0) unescaped.push_back(std::move(bare));
    levels = std::max(levels, ESCAPE_LEVELS + level);
    plain.push_back(secret);
    longest = std::max(longest, secret.size());
  }
}

// Merges `more` into `spans`, both in order, and joins adjacent spans.
void add(std::vector<Span>& spans, const std::vector<Span>& more) {
  if (more.empty()) return;
  std::vector<Span> both;
  both.reserve(spans.size() + more.size());
  std::ranges::merge(spans, more, std::back_inserter(both), {}, &Span::begin, &Span::begin);
  spans.clear();
  for (const Span& span : both) {
    if (spans.empty() || span.begin > spans.back().end) {
      spans.push_back(span);
    } else {
      spans.back().end = std::max(spans.back().end, span.end);
    }
  }
}

// The occurrences in a part of a text. Those that begin before `settled` are complete.
struct Found {
  std::vector<Span> spans;
  std::size_t settled;
};

// Unescapes `part` level by level into `levels`, and searches each level.
Found search(std::string_view part, const Needles& needles, Following following,
             std::vector<Unescaped>& levels) {
  const auto text = [&](std::size_t level) {
    return level == 0 ? part : std::string_view(levels[level - 1].text());
  };
  std::size_t level = 0;
  while (level < levels.size() && levels[level].assign(text(level), following)) ++level;
  // An occurrence that begins this far from the end of the last level ends inside it, and so in the
  // levels before, which are longer.
  const std::size_t least = text(level).size();
  std::vector<Span> settled{{.begin = least - std::min(least, needles.longest), .end = least}};
  std::vector<Span> spans;
  for (;; --level) {
    for (const auto& secret : needles.plain) add(spans, find_all(text(level), secret, following));
    if (level == 0) break;
    for (const auto& secret : needles.unescaped)
      add(spans, find_all(text(level), secret, following));
    levels[level - 1].map_to_source(spans);
    levels[level - 1].map_to_source(settled);
  }
  return {.spans = std::move(spans), .settled = least > needles.longest ? settled[0].begin : 0};
}

// Returns `text` with a mask in place of every secret; nothing if there is none. The tables of a
// search are several times as large as its text, so the search proceeds in windows. A window begins
// between escapes, in every level, so the result is that of one pass. It also begins early enough
// to contain occurrences that the end of the previous window may have cut.
std::optional<std::string> masked(std::string_view text, const Needles& needles,
                                  Following following, std::string_view mask) {
  std::optional<std::string> out;
  std::size_t copied = 0;
  std::vector<Span> spans;
  std::vector<Unescaped> levels(needles.levels);
  std::size_t window = WINDOW;
  for (std::size_t begin = 0; begin < text.size();) {
    const bool last = text.size() - begin <= window;
    Found found =
        search(text.substr(begin, window), needles, last ? following : Following::more, levels);
    if (!last && found.settled < window / 2) {
      window *= 2;
      continue;
    }
    for (Span& span : found.spans) span = {.begin = span.begin + begin, .end = span.end + begin};
    add(spans, found.spans);
    begin = last ? text.size() : begin + found.settled;
    window = WINDOW;
    // Keeps a span that the next window may extend.
    auto open = spans.begin();
    for (; open != spans.end() && (last || open->end < begin); ++open) {
      if (!out) out.emplace().reserve(text.size());
      out->append(text, copied, open->begin - copied).append(mask);
      copied = open->end;
    }
    spans.erase(spans.begin(), open);
  }
  if (out) out->append(text.substr(copied));
  return out;
}

}  // namespace

std::string redact(std::string_view text, const Secrets& plain, Following following) {
  const Needles needles(plain);
  for (const std::string_view mask : MASKS) {
    std::optional<std::string> out = masked(text, needles, following, mask);
    if (!out) return std::string(text);
    if (!masked(*out, needles, following, "")) return *std::move(out);
  }
  // Removing a secret may join the pieces of another, so repeat until none is left.
  std::string out(text);
  for (int round = 0; round < MAX_ROUNDS; ++round) {
    std::optional<std::string> less = masked(out, needles, following, "");
    if (!less) return out;
    out = *std::move(less);
  }
  return {};
}

}  // namespace tovren_mapstead::engines::http
