// The text of a prompt: a question and what goes with it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ask {

/// By which tokens are estimated: most tokenizers take about four bytes of English or code for one.
constexpr std::size_t BYTES_PER_TOKEN = 4;

constexpr const char* LISTING = "(all files)";
constexpr const char* STANDARD_INPUT = "(standard input)";

/// A file, or an excerpt of it, or text of another source in parentheses.
struct Section {
  std::string name;
  std::string text;
};

struct Prompt {
  std::string question;
  std::vector<Section> sections;  // the most relevant first, after the listing
};

/// Returns a section with a line above it that has its name and size.
std::string to_text(const Section& section);

/// Returns the question and the sections as one text.
std::string to_text(const Prompt& prompt);

/// Does the reverse of `to_text`. Returns any other text as a question without sections.
Prompt from_text(std::string_view text);

}  // namespace ask
