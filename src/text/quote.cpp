#include "text/quote.hpp"

#include <algorithm>
#include <cstddef>

#include "text/redaction.hpp"
#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// One line of valid UTF-8: runs of blanks and control characters become one blank, bytes that are
// no character U+FFFD. A terminal escape in a server's reply stays harmless that way.
std::string one_line(std::string_view text) {
  std::string out;
  bool blank = true;  // so that none comes first
  while (!text.empty()) {
    const auto [code_point, width] = read_utf8(text);
    if (width > 0 && (code_point <= 0x20 || (code_point >= 0x7F && code_point < 0xA0))) {
      if (!blank) out += ' ';
      blank = true;
    } else {
      append_utf8(out, width == 0 ? 0xFFFD : code_point);
      blank = false;
    }
    text.remove_prefix(width == 0 ? 1 : width);
  }
  if (out.ends_with(' ')) out.pop_back();
  return out;
}

std::string cut(std::string text, std::size_t max_chars) {
  std::size_t at = 0;
  for (std::size_t chars = 0; chars < max_chars && at < text.size(); ++chars) {
    at += read_utf8(std::string_view(text).substr(at)).width;
  }
  text.resize(at);
  return text;
}

}  // namespace

std::string quote(std::string_view text, const Secrets& secrets, std::size_t max_chars) {
  // Four bytes at most make a character; as many again are room for what cleaning takes away.
  const std::size_t bytes = 8 * std::min(max_chars, text.size());
  const std::string clean =
      redact(text.substr(0, std::max(QUOTED_BYTES, bytes)), secrets, Tail::cut);
  // Joining lines can bring the pieces of a secret together.
  return cut(redact(one_line(clean), secrets, Tail::cut), max_chars);
}

}  // namespace tovren_mapstead::engines::http
