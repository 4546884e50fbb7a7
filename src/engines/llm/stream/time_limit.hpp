// The wall-clock limit of a stream: a slow but steady one would otherwise run without end.
#pragma once

#include <chrono>
#include <functional>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"

#include "engines/http/time.hpp"

namespace tovren_mapstead::engines::llm {

/// `timeout_s` seconds from now, 0 for none. Borrows `clock` and reads it only if there is a limit;
/// an empty one stands for the steady clock.
class TimeLimit {
 public:
  using ClockReading = std::function<http::Clock::time_point()>;

  TimeLimit(double timeout_s, const ClockReading& clock)
      : _timeout_s(timeout_s),
        _clock(clock),
        _start(timeout_s == 0 ? Moment{}
               : clock        ? clock()
                              : http::Clock::now()) {}

  /// Throws http::Retryable once the limit has passed. To be asked for each piece that comes.
  void check() const {
    if (_timeout_s == 0) return;
    // The coarse clock lags, so that no limit ends early.
    const Moment now = _clock ? _clock() : http::coarse_now();
    if (std::chrono::duration<double>(now - _start).count() > _timeout_s) {
      throw http::Retryable("stream exceeded timeout before completing");
    }
  }

 private:
  using Moment = http::Clock::time_point;

  const double _timeout_s;
  const ClockReading& _clock;
  const Moment _start;
};

}  // namespace tovren_mapstead::engines::llm
