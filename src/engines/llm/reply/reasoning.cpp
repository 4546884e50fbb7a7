#include "engines/llm/reply/reasoning.hpp"

#include <algorithm>

#include <re2/re2.h>

#include "engines/http/process.hpp"
#include "text/characters.hpp"
#include "text/trim.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

re2::RE2 make_code_span() {
  // In UTF-8 mode, spans beside invalid bytes would be missed. All that the pattern names is ASCII,
  // so it can match bytes.
  re2::RE2::Options options(re2::RE2::Latin1);
  options.set_dot_nl(true);
  options.set_log_errors(false);
  const http::ForkGuard guard;  // for locks that all patterns share when they are made
  return {"```.*?```|~~~.*?~~~|`[^`\\n]*`", options};
}

// A pattern has a lock around its cache, which another thread may hold during a fork. So a child
// has its own pattern.
constinit http::Once<re2::RE2> code_span;

// Made when the library is loaded, when there is memory, unless a call before `main` needs it
// first.
[[maybe_unused]] const bool LOADED = (code_span.get(make_code_span), true);

// The code spans of a text from left to right. They are found as they are needed.
class CodeSpans {
 public:
  explicit CodeSpans(std::string_view text)
      : _pattern(code_span.get(make_code_span)), _text(text.data(), text.size()) {
    next();
  }

  // Returns whether a span covers `at`. For ascending values only.
  bool cover(std::size_t at) {
    while (!_none && _end <= at) next();
    return !_none && _begin <= at;
  }

 private:
  void next() {
    re2::StringPiece span;
    _none = !_pattern.Match(_text, _end, _text.size(), re2::RE2::UNANCHORED, &span, 1);
    if (_none) return;
    _begin = static_cast<std::size_t>(span.data() - _text.data());
    _end = _begin + span.size();
  }

  const re2::RE2& _pattern;
  re2::StringPiece _text;
  std::size_t _begin = 0;
  std::size_t _end = 0;
  bool _none = false;
};

std::string_view without_reasoning(std::string_view content) {
  if (content.find('<') == std::string_view::npos) return content;  // as mostly
  const auto closes = _tag_positions(content, THINK_CLOSE);
  if (!closes.empty()) return content.substr(closes.back() + THINK_CLOSE.size());
  const auto opens = _tag_positions(content, THINK_OPEN);
  return opens.empty() ? content : content.substr(0, opens.front());
}

}  // namespace

std::vector<std::size_t> _tag_positions(std::string_view content, std::string_view tag) {
  std::vector<std::size_t> found;
  // Both tags begin with a character that has no letter case and stands nowhere else in them.
  for (std::size_t at = content.find(tag.front()); at != std::string_view::npos;
       at = content.find(tag.front(), at + 1)) {
    if (http::equal_in_any_case(content.substr(at, tag.size()), tag)) found.push_back(at);
  }
  if (found.empty()) return found;
  CodeSpans spans(content);
  std::erase_if(found, [&](std::size_t at) { return spans.cover(at); });
  return found;
}

std::string _strip_reasoning(std::string content) {
  const std::string_view answer = http::trim(without_reasoning(content));
  // In place, so that a long answer is not held twice.
  const auto begin = static_cast<std::size_t>(answer.data() - content.data());
  content.resize(begin + answer.size());
  content.erase(0, begin);
  return content;
}

}  // namespace tovren_mapstead::engines::llm
