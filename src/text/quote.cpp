#include "text/quote.hpp"

#include <algorithm>
#include <cstddef>

#include "text/characters.hpp"
#include "text/redaction.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Returns one line of valid UTF-8: runs of blanks and control characters become one blank, invalid
// bytes become U+FFFD. That disables terminal escapes in a server's reply.
std::string one_line(std::string_view text) {
  std::string out;
  bool blank = true;  // so that the line does not start with one
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
  // A character has at most four bytes. Twice as many allow for those that are removed.
  const std::size_t bytes = 8 * std::min(max_chars, text.size());
  const std::string clean =
      redact(text.substr(0, std::max(QUOTED_BYTES, bytes)), secrets, Following::unknown);
  // Joining lines can join the pieces of a secret.
  return cut(redact(one_line(clean), secrets, Following::unknown), max_chars);
}

}  // namespace tovren_mapstead::engines::http
