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

}  // namespace bench
