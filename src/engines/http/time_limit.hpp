// The wall-clock limit of a stream: a slow but steady one would otherwise run without end.
#pragma once

#include <cmath>
#include <optional>

#include "tovren_mapstead/engines/http/errors.hpp"

#include "engines/http/time.hpp"

namespace tovren_mapstead::engines::http {

/// Ends `timeout_s` seconds from now; never for 0, NaN and what is more than the clock can count.
class TimeLimit {
 public:
  explicit TimeLimit(double timeout_s)
      : _end(timeout_s == 0 || std::isnan(timeout_s) ? std::nullopt
                                                     : after(Clock::now(), timeout_s)) {}

  /// Throws Retryable once the limit has passed. To be asked for each piece that comes.
  void check() const {
    // The coarse clock lags, so that no limit ends early.
    if (_end && coarse_now() > *_end) {
      throw Retryable("stream exceeded timeout before completing");
    }
  }

 private:
  std::optional<Deadline> _end;
};

}  // namespace tovren_mapstead::engines::http
