#include "engines/http/lines.hpp"

#include <array>
#include <utility>

#include "tovren_mapstead/engines/http/json.hpp"

#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Returns how many bytes at the end of `text` begin a UTF-8 character that needs more bytes.
std::size_t unfinished(std::string_view text) {
  constexpr std::size_t LONGEST = 4;
  for (std::size_t width = 1; width < LONGEST && width <= text.size(); ++width) {
    // Each first byte can be followed by the least or by the greatest continuation byte.
    for (const char next : {'\x80', '\xBF'}) {
      std::array<char, LONGEST> whole{};
      whole.fill(next);
      text.copy(whole.data(), width, text.size() - width);
      if (read_utf8({whole.data(), whole.size()}).width > width) return width;
    }
  }
  return 0;
}

}  // namespace

std::string& LineBuffer::to_fill() {
  _buffer.resize(_size);  // removes the padding
  if (_start > 0) {
    _buffer.erase(0, _start);
    _line_feed.shift(_start);
    _carriage_return.shift(_start);
    _size -= std::exchange(_start, 0);
  }
  return _buffer;
}

void LineBuffer::filled() {
  _size = _buffer.size();
  _buffer.append(JsonReader::PADDING, '\0');
}

std::optional<std::string_view> LineBuffer::last() {
  _size -= unfinished({_buffer.data() + _start, pending()});
  if (pending() == 0) return std::nullopt;
  return take_line(_size);
}

std::string LineBuffer::take() {
  skip_line_feed();
  _line_feed = Finder('\n');
  _carriage_return = Finder('\r');
  _buffer.resize(std::exchange(_size, 0));
  return std::exchange(_buffer, {}).substr(std::exchange(_start, 0));
}

}  // namespace tovren_mapstead::engines::http
