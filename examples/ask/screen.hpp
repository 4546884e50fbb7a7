// Shows a call that is under way: the answer on standard output, progress on standard error.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/events.hpp"
#include "tovren_mapstead/engines/http/observe.hpp"

#include "ask/draft.hpp"

namespace ask {

/// On a terminal the answer appears as it is written, in printable form. Anything else gets the
/// final answer alone. For the thread of one call.
class Screen {
 public:
  Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
  /// Ends the line that has been begun, if any.
  ~Screen();

  /// Takes the steps of the call's exchanges. A new request starts the text anew.
  void observe(const tovren_mapstead::engines::http::ExchangeEvent& event);

  /// Draws how long the call takes, if standard error is a terminal and no answer is shown yet.
  /// Call it often.
  void tick();

  /// Shows the final answer in place of what was shown of it. Returns whether it was written.
  bool finish(const std::string& answer);

 private:
  void show(std::string_view piece);
  void erase_shown();
  void erase_progress();

  using Clock = std::chrono::steady_clock;

  const bool _answer_on_terminal;
  const bool _progress_on_terminal;
  const Clock::time_point _begun = Clock::now();
  Clock::time_point _drawn{};
  bool _progress_drawn = false;
  std::size_t _bytes = 0;  // of replies
  tovren_mapstead::engines::http::EventDecoder _events;
  Draft _draft;
  std::string _shown;  // of the answer, on the terminal
};

}  // namespace ask
