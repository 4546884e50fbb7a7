// Holds the removal of reasoning against the plainest reading of its rules: from each place of the
// text, all that follows is looked at.
#include "engines/llm/reply/reasoning.hpp"

#include "fuzz.hpp"
#include "text/trim.hpp"

namespace {

using namespace fuzz;

// How many bytes from `at` on are a code span; 0: none begins here.
std::size_t span_at(const std::string& text, std::size_t at) {
  for (const std::string fence : {"```", "~~~"}) {
    const std::size_t end = text.find(fence, at + 3);
    if (text.compare(at, 3, fence) == 0 && end != std::string::npos) return end + 3 - at;
  }
  const std::size_t end = text.find_first_of("`\n", at + 1);
  return text[at] == '`' && end != std::string::npos && text[end] == '`' ? end + 1 - at : 0;
}

std::vector<std::size_t> tags(const std::string& text, const std::string& tag) {
  std::vector<std::size_t> found;
  for (std::size_t at = 0, code_end = 0; at < text.size(); ++at) {
    if (at >= code_end) code_end = at + span_at(text, at);
    if (at >= code_end && tag == http::lower_case(text.substr(at, tag.size()))) found.push_back(at);
  }
  require(llm::_tag_positions(text, tag) == found, text);
  return found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  const auto closes = tags(text, "</think>");
  const auto opens = tags(text, "<think>");
  const std::string uncut = text.substr(0, opens.empty() ? text.size() : opens.front());
  const std::string answer = closes.empty() ? uncut : text.substr(closes.back() + 8);
  require(llm::_strip_reasoning(text) == http::trim(answer), text);
  return 0;
}
