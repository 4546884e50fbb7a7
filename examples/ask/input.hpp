// Reads what is piped into the program.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace ask {

struct Piped {
  std::string text;  // empty: nothing was piped
  bool cut = false;  // there was more
};

/// Returns at most `most` bytes of standard input, whole lines if it had more. Returns nothing for
/// a terminal, a device, a closed descriptor, and a pipe into which nothing is written for 3
/// seconds: a job of a CI server may have one that stays open. Returns early if `should_stop`
/// returns true. Throws std::invalid_argument if it is not UTF-8 text.
Piped read_piped(std::size_t most, const std::function<bool()>& should_stop);

}  // namespace ask
