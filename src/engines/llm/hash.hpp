// Hashes of the records, whose equal values have equal hashes.
#pragma once

#include <cstddef>
#include <functional>

namespace tovren_mapstead::engines::llm {

/// Returns one hash for all `values`.
template <class... Values>
[[nodiscard]] std::size_t hash_of(const Values&... values) noexcept {
  constexpr std::size_t GOLDEN = 0x9E3779B97F4A7C15;  // spreads neighbouring values (Knuth)
  std::size_t seed = 0;
  ((seed ^= std::hash<Values>{}(values) + GOLDEN + (seed << 6U) + (seed >> 2U)), ...);
  return seed;
}

}  // namespace tovren_mapstead::engines::llm
