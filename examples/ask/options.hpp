// The command line of `ask`.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ask {

struct Options {
  std::string directory = ASK_DEFAULT_DIRECTORY;  // the repository of this program
  std::string question = "What is in this repository, and in which languages is it written?";
  int budget = 12000;                 // of the prompt, in tokens
  bool files = false;                 // only print what would be sent
  std::optional<std::string> prompt;  // sent instead of files and question
  std::string base_url;               // empty: the demo endpoint, or Copilot
  std::string model;
  std::string provider = "openai";
  bool json = false;
  bool stream = true;
  bool help = false;
  std::optional<double> deadline_s;
  std::optional<double> timeout_s;
  std::optional<int> retries;
  std::optional<int> max_tokens;
  std::optional<double> temperature;
};

/// An error in the command line.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

extern const char* const HELP;

/// Parses the command line. Throws UsageError.
Options parse(const std::vector<std::string>& arguments);

}  // namespace ask
