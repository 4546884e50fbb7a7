// Holds the removal of reasoning against the plainest reading of its rules: each place of the text
// is looked at, and from it all that follows.
#include <algorithm>

#include "engines/http/text.hpp"
#include "engines/llm/reply/reasoning.hpp"
#include "fuzz.hpp"

namespace {

using namespace fuzz;

// How many bytes from `at` on are a code span; 0: none begins here.
std::size_t span_at(const std::string& text, std::size_t at) {
  for (const std::string fence : {"```", "~~~"}) {
    if (text.compare(at, 3, fence) != 0) continue;
    if (const std::size_t end = text.find(fence, at + 3); end != std::string::npos) return end + 3 - at;
  }
  if (text[at] != '`') return 0;
  const std::size_t end = text.find_first_of("`\n", at + 1);
  return end != std::string::npos && text[end] == '`' ? end + 1 - at : 0;
}

std::vector<std::size_t> tags(const std::string& text, const std::string& tag) {
  std::vector<std::size_t> found;
  for (std::size_t at = 0, code_end = 0; at < text.size(); ++at) {
    if (at >= code_end) code_end = at + span_at(text, at);
    if (at >= code_end && tag == http::lower_case(text.substr(at, tag.size()))) found.push_back(at);
  }
  return found;
}

bool is_space(std::uint32_t c) {
  return (c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x20) || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

std::string trimmed(std::string text) {
  for (bool again = true; again;) {
    again = false;
    for (std::size_t width = 1; width <= std::min<std::size_t>(3, text.size()); ++width) {
      const auto space = [&](const std::string& end) {
        const auto [code_point, read] = http::read_utf8(end);
        return read == width && end.size() == width && is_space(code_point);
      };
      if (space(text.substr(0, width))) {
        text.erase(0, width);
        again = true;
      } else if (space(text.substr(text.size() - width))) {
        text.erase(text.size() - width);
        again = true;
      }
    }
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto closes = tags(text, "</think>");
  const auto opens = tags(text, "<think>");
  require(llm::_tag_positions(text, "</think>") == closes, text);
  require(llm::_tag_positions(text, "<think>") == opens, text);
  const std::string answer = !closes.empty() ? text.substr(closes.back() + 8)
                             : opens.empty() ? text
                                             : text.substr(0, opens.front());
  require(llm::_strip_reasoning(text) == trimmed(answer), text);
  return 0;
}
