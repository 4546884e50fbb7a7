#include "ask/prompt.hpp"

#include <algorithm>
#include <charconv>

namespace ask {
namespace {

constexpr std::string_view QUESTION = "Question: ";
constexpr std::string_view MARK = "\n=== ";

}  // namespace

std::string to_text(const Section& section) {
  return std::string(MARK) + section.name + " (" + std::to_string(section.text.size()) +
         " bytes)\n" + section.text;
}

std::string to_text(const Prompt& prompt) {
  std::string text = std::string(QUESTION) + prompt.question + "\n";
  for (const Section& section : prompt.sections) text += to_text(section);
  return text;
}

Prompt from_text(std::string_view text) {
  if (!text.starts_with(QUESTION)) return {.question = std::string(text), .sections = {}};
  // The question may have several lines. It ends before the first section.
  const std::size_t end = std::min(text.find("\n" + std::string(MARK)), text.size());
  Prompt prompt{.question = std::string(text.substr(QUESTION.size(), end - QUESTION.size())),
                .sections = {}};
  text.remove_prefix(std::min(text.size(), end + 1));
  while (text.starts_with(MARK)) {
    text.remove_prefix(MARK.size());
    const std::string_view head = text.substr(0, text.find('\n'));
    const std::size_t open = head.rfind(" (");
    if (open == std::string_view::npos) break;
    std::size_t size = 0;
    std::from_chars(head.data() + open + 2, head.data() + head.size(), size);
    text.remove_prefix(std::min(text.size(), head.size() + 1));
    prompt.sections.push_back(
        {.name = std::string(head.substr(0, open)), .text = std::string(text.substr(0, size))});
    text.remove_prefix(std::min(text.size(), size));
  }
  return prompt;
}

}  // namespace ask
