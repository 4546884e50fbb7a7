// What the benchmarks find.
#pragma once

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

  /// What is held against the limit.
  [[nodiscard]] double judged() const { return ratio ? *ratio : floor ? ours / *floor : ours; }

  [[nodiscard]] bool met() const { return at_least ? judged() >= limit : judged() <= limit; }
};

/// Takes the figures as they are found.
using Report = std::function<void(const Figure&)>;

/// Says whether a figure is wanted.
using Wanted = std::function<bool(const std::string& name)>;

class Endpoint;

void measure_calls(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_instructions(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_connections(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_latency(const Endpoint& endpoint, const Wanted& wanted, const Report& report);
void measure_decoding(const Wanted& wanted, const Report& report);

/// Makes `count` calls of a work that `measure_calls` knows, by the client or by the floor, for
/// `measure_instructions` to count. Returns an exit status.
int repeat(const std::string& url, const std::string& name, bool ours, int count);

}  // namespace bench
