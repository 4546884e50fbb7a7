// The part of an answer that can be shown while the rest is still to come.
#pragma once

#include <string>
#include <string_view>

namespace ask {

/// Takes the pieces of one streamed answer. Leaves out reasoning at its start, and white space at
/// both ends, as the final answer does.
class Draft {
 public:
  /// Adds a piece and returns the text that can be shown next, which may be empty. It is printable
  /// (text.hpp).
  std::string add(std::string_view piece);

  /// Returns whether reasoning has begun and not ended.
  [[nodiscard]] bool thinking() const noexcept { return _state == State::thinking; }

 private:
  enum class State { begin, thinking, answer };

  bool skip_reasoning();

  State _state = State::begin;
  std::string _pending;  // not shown yet
};

}  // namespace ask
