// What the benchmarks find.
#pragma once

#include <algorithm>
#include <cmath>
#include <functional>
#include <optional>
#include <string>

namespace bench {

/// One figure. Without a floor it is an absolute one.
struct Figure {
  const std::string name;
  const double ours;
  const std::optional<double> floor{};
  const std::optional<double> ratio{};  ///< Where it is more than `ours` to `floor`.
  const std::string unit;
  const double limit;           ///< What the ratio, else the figure itself, should not exceed.
  const bool at_least = false;  ///< The limit is what it should reach instead.
  const double spread = 0;      ///< How far apart its rounds are, as a part of the figure.

  /// What is held against the limit.
  [[nodiscard]] double judged() const { return ratio ? *ratio : floor ? ours / *floor : ours; }

  [[nodiscard]] bool met() const { return at_least ? judged() >= limit : judged() <= limit; }
};

/// A figure of an earlier run.
struct Earlier {
  double judged;
  double spread;
};

/// Tells whether a figure has become better or worse than it was. It has not as long as the
/// difference is within what the rounds of the two runs differ by, or within 3 %.
[[nodiscard]] inline const char* verdict(const Figure& figure, const Earlier& earlier) {
  constexpr double LEAST = 0.03;
  const double noise = std::max(LEAST, 2 * std::max(figure.spread, earlier.spread));
  const double change = figure.judged() / earlier.judged - 1;
  if (std::abs(change) <= noise) return "the same";
  return (change < 0) == figure.at_least ? "worse" : "better";
}

/// Takes the figures as they are found.
using Report = std::function<void(const Figure&)>;

/// Says whether a figure is wanted.
using Wanted = std::function<bool(const std::string& name)>;

class Endpoint;

void measure_calls(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_instructions(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_connections(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_latency(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_streams(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_decoding(const Wanted& wanted, const Report& report);

/// Makes `count` calls of a work that `measure_calls` knows, by the client or by the floor, for
/// `measure_instructions` to count. Returns an exit status.
int repeat(const std::string& url, const std::string& name, bool ours, int count);

/// Reads so many streams at a time, for `measure_streams`, and prints the microseconds of CPU for
/// an event and the KB of memory for a call. Returns an exit status.
int run_streams(const std::string& url, bool ours, int count);

}  // namespace bench
