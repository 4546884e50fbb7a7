#include "ask/draft.hpp"

#include <algorithm>
#include <cstddef>

#include <strings.h>

#include "tovren_mapstead/engines/http/utf8.hpp"

#include "ask/text.hpp"

namespace ask {
namespace {

constexpr std::string_view OPEN = "<think>";
constexpr std::string_view CLOSE = "</think>";
constexpr const char* WHITE_SPACE = " \t\r\n";

bool same_start(std::string_view text, std::string_view tag) {
  return strncasecmp(text.data(), tag.data(), std::min(text.size(), tag.size())) == 0;
}

// Returns where the first closing tag ends; 0 if there is none.
std::size_t end_of_close(std::string_view text) {
  for (std::size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
    const std::size_t left = text.size() - at;
    if (left >= CLOSE.size() && same_start(text.substr(at), CLOSE)) return at + CLOSE.size();
  }
  return 0;
}

}  // namespace

// Returns whether what is pending is a part of the answer.
bool Draft::skip_reasoning() {
  while (_state != State::answer) {
    if (_state == State::begin) {
      _pending.erase(0, std::min(_pending.find_first_not_of(WHITE_SPACE), _pending.size()));
      const bool may_be_tag = same_start(_pending, OPEN);
      if (may_be_tag && _pending.size() < OPEN.size()) return false;
      _state = may_be_tag ? State::thinking : State::answer;
    } else {
      const std::size_t close = end_of_close(_pending);
      if (close == 0) {  // all but what may be the start of the tag is of no use any more
        _pending.erase(0, _pending.size() - std::min(_pending.size(), CLOSE.size() - 1));
        return false;
      }
      _pending.erase(0, close);
      _state = State::begin;
    }
  }
  return true;
}

std::string Draft::add(std::string_view piece) {
  _pending += piece;
  if (!skip_reasoning()) return {};
  const std::string_view whole = whole_characters(_pending);
  std::string text(whole.substr(0, whole.find_last_not_of(WHITE_SPACE) + 1));
  _pending.erase(0, text.size());
  tovren_mapstead::engines::http::join_halves(text);
  return printable(text, Lines::keep);
}

}  // namespace ask
