// Unescapes a text, for the escapes of JSON strings and of URLs (RFC 3986, section 2.1), and maps
// positions back to the source.
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

/// What follows a text: nothing, an unknown rest that was cut off, or text that is read next.
enum class Following { nothing, unknown, more };

/// A text with one level of escapes removed, of both kinds at once.
class Unescaped {
 public:
  /// Unescapes `source`, and reuses the memory. Returns whether there were escapes.
  bool assign(std::string_view source, Following following);

  [[nodiscard]] const std::string& text() const noexcept { return _text; }

  /// Maps spans of the text, in order, to spans of the source. Includes escapes whole. At the end
  /// of a source that was cut, half of an escape belongs to the span before it.
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
