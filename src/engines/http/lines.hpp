// Splits a body into lines while it arrives.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {

/// Finds the next occurrence of a character in a growing buffer. Looks at each byte once, however
/// short the lines are and however rare the character.
class Finder {
 public:
  explicit Finder(char character) : _character(character) {}

  /// Returns the first place at or after `start`, or the size of the buffer.
  std::size_t next(std::string_view buffer, std::size_t start) {
    if (_at < start || (_at < buffer.size() && buffer[_at] != _character)) {
      _at = std::min(buffer.find(_character, std::max(_at, start)), buffer.size());
    }
    return _at;
  }

  /// The buffer has lost its first `count` bytes.
  void shift(std::size_t count) { _at -= std::min(_at, count); }

 private:
  char _character;
  std::size_t _at = 0;  // no such character stands between the start and here
};

/// Holds the bytes of a body that have not been read, and returns them line by line. LF, CRLF and a
/// lone CR end a line. A byte order mark before the first line is skipped (the event-stream
/// format). A line is valid until the next change; JsonReader::PADDING bytes after it are readable.
class LineBuffer {
 public:
  /// Drops what was returned and hands out the buffer, to append to. Call `filled` afterwards.
  std::string& to_fill();

  /// Notes what was appended.
  void filled();

  /// Returns the next line whose end has arrived.
  std::optional<std::string_view> next();

  /// Returns what is left after the end of the body. Without the start of a UTF-8 character that
  /// the end cuts. Nothing if that is empty.
  std::optional<std::string_view> last();

  /// Takes all that has arrived and was not returned.
  std::string take();

  /// Returns how many bytes have arrived and were not returned.
  [[nodiscard]] std::size_t pending() const noexcept { return _size - _start; }

 private:
  void skip_line_feed();
  std::string_view take_line(std::size_t end);

  std::string _buffer;
  std::size_t _start = 0;  // of what was not returned
  std::size_t _size = 0;   // of what has arrived; behind it is padding
  Finder _line_feed{'\n'};
  Finder _carriage_return{'\r'};
  bool _at_body_start = true;
  bool _after_carriage_return = false;
};

// Inline, because this runs for each line of a stream.
inline std::optional<std::string_view> LineBuffer::next() {
  skip_line_feed();
  const std::string_view arrived(_buffer.data(), _size);
  const std::size_t end =
      std::min(_line_feed.next(arrived, _start), _carriage_return.next(arrived, _start));
  if (end >= _size) return std::nullopt;  // beyond it after `last` has cut a character
  _after_carriage_return = _buffer[end] == '\r';
  return take_line(end);
}

// Skips the LF of a CRLF. The CR has ended the line already, so that nobody waits for a sender that
// stops between the two.
inline void LineBuffer::skip_line_feed() {
  if (!_after_carriage_return || pending() == 0) return;
  _after_carriage_return = false;
  if (_buffer[_start] == '\n') ++_start;
}

// Takes the line that ends at `end`, with its line end if that has arrived.
inline std::string_view LineBuffer::take_line(std::size_t end) {
  std::string_view line(_buffer.data() + _start, end - _start);
  _start = std::min(end + 1, _size);
  if (std::exchange(_at_body_start, false) && line.starts_with(BYTE_ORDER_MARK)) {
    line.remove_prefix(BYTE_ORDER_MARK.size());
  }
  return line;
}

}  // namespace tovren_mapstead::engines::http
