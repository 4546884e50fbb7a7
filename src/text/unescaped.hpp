// A text without its escapes, those of JSON strings and of URLs (RFC 3986, section 2.1), and where
// its characters came from.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tovren_mapstead::engines::http {

struct Span {
  std::size_t begin;
  std::size_t end;
};

/// What follows a text: nothing; something unknown, which was cut off; or more, which is read next.
enum class Tail { whole, cut, more };

/// A text with one level of escapes undone, of both kinds at once.
class Unescaped {
 public:
  /// Reads another source, in the memory that this has. Returns whether it held escapes.
  bool assign(std::string_view source, Tail tail);

  [[nodiscard]] const std::string& text() const noexcept { return _text; }

  /// Makes pieces of the text, which are in order, those of the source behind them. Escapes are
  /// taken whole; at the end of a source that was cut, half of one belongs to the piece before it.
  void map_to_source(std::vector<Span>& spans) const;

 private:
  // An escape: `width` bytes from `from` on in the source became those from `to` to `end`.
  struct Jump {
    std::size_t to;
    std::size_t end;
    std::size_t from;
    std::size_t width;
  };

  std::string _text;
  std::vector<Jump> _jumps;
  std::size_t _source_end = 0;
};

}  // namespace tovren_mapstead::engines::http
