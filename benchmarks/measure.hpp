// What several benchmarks measure with.
#pragma once

#include <algorithm>
#include <ctime>
#include <vector>

namespace bench {

/// The CPU time of the calling thread so far, in seconds.
[[nodiscard]] inline double cpu_s() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

[[nodiscard]] inline double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

/// Returns half of the distance between the quartiles, as a part of the median: how far apart the
/// rounds of one run are.
[[nodiscard]] inline double spread(std::vector<double> values) {
  std::ranges::sort(values);
  const std::size_t quarter = values.size() / 4;
  return (values[values.size() - 1 - quarter] - values[quarter]) / (2 * median(values));
}

}  // namespace bench
