#include "tovren_mapstead/engines/http/utf8.hpp"

#include <cstddef>
#include <cstdint>

#include <simdjson.h>

#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Returns the half of a surrogate pair that the three bytes at `at` spell, else 0.
std::uint32_t half_at(std::string_view text, std::size_t at) {
  if (text.size() - at < 3 || text[at] != '\xED') return 0;
  const auto second = static_cast<unsigned char>(text[at + 1]);
  const auto third = static_cast<unsigned char>(text[at + 2]);
  return second < 0xA0 ? 0 : 0xD000U | (second & 0x3FU) << 6U | (third & 0x3FU);
}

}  // namespace

bool is_utf8(std::string_view text) noexcept {
  return simdjson::validate_utf8(text.data(), text.size());
}

void join_halves(std::string& text) {
  constexpr std::size_t HALF_WIDTH = 3;
  std::string joined;
  std::size_t copied = 0;
  for (std::size_t at = text.find('\xED'); at != std::string::npos; at = text.find('\xED', at)) {
    const std::uint32_t half = half_at(text, at);
    if (half == 0) {
      ++at;
      continue;
    }
    joined.append(text, copied, at - copied);
    at += HALF_WIDTH;
    const std::uint32_t next = is_high_half(half) && at < text.size() ? half_at(text, at) : 0;
    if (is_low_half(next)) at += HALF_WIDTH;
    append_utf8(joined, is_low_half(next) ? join_pair(half, next) : 0xFFFD);
    copied = at;
  }
  if (copied > 0) text = joined.append(text, copied);
}

}  // namespace tovren_mapstead::engines::http
