#include "ask/options.hpp"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <system_error>

namespace ask {

const char* const HELP =
    R"(usage: ./run [OPTION]... [DIR] [QUESTION]

Asks a language model QUESTION about the source files under DIR (default: this
repository) and prints its answer. It sends the files that are most relevant to
the question, whole or in part, the README and the names of all files. Text that
is piped in is sent in place of the files: git diff | ./run "Is this right?"
Without --base-url and --provider copilot, a small demo endpoint inside the
process answers: it is no model, it counts what it got.

  --files             print the paths of the files that would be sent, the most
                      relevant first, and send nothing
  --budget N          most tokens of the prompt (12000), at about 4 bytes a token
  --prompt TEXT       send only this instead of files and question
  --base-url URL      an OpenAI-compatible API, e.g. https://api.example.org/v1
  --model NAME        the model to ask
  --provider NAME     "copilot", or a name of your own
  --json              ask for a JSON object
  --no-stream         request the answer in one piece
  --deadline SECONDS  give up after this time
  --timeout SECONDS   idle timeout of an attempt, and limit of a whole stream
                      (60; 0: none)
  --retries N         attempts after the first (2)
  --max-tokens N      most tokens of the answer (1500)
  --temperature X     sampling temperature (0.2)
  -h, --help          print this

The API key comes from the environment variable TOVREN_LLM_API_KEY, Copilot's
credential from a sign-in in an editor or from COPILOT_GITHUB_TOKEN.
stdout gets the answer alone: a terminal as it is written, anything else at its
end. stderr gets what was sent, progress if it is a terminal, and a last line of
figures or the error.
Exit status: 0 an answer, 1 the call failed, 2 bad usage, 3 the deadline passed,
130 stopped by Ctrl-C.
)";

namespace {

template <class Number>
Number number(const std::string& option, const std::string& text) {
  Number value{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end || !std::isfinite(static_cast<double>(value))) {
    throw UsageError(option + " needs a number, not \"" + text + "\"");
  }
  return value;
}

template <class Number>
Number no_less(const std::string& option, const std::string& text, Number least) {
  const auto value = number<Number>(option, text);
  if (value < least) throw UsageError(option + " must not be negative");
  return value;
}

using Setter = std::function<void(Options&, const std::string& option, const std::string& value)>;

const std::map<std::string, Setter> VALUED{
    {"--prompt", [](auto& o, auto&, auto& v) { o.prompt = v; }},
    {"--base-url", [](auto& o, auto&, auto& v) { o.base_url = v; }},
    {"--model", [](auto& o, auto&, auto& v) { o.model = v; }},
    {"--provider", [](auto& o, auto&, auto& v) { o.provider = v; }},
    {"--budget", [](auto& o, auto& n, auto& v) { o.budget = no_less(n, v, 0); }},
    {"--deadline", [](auto& o, auto& n, auto& v) { o.deadline_s = no_less(n, v, 0.0); }},
    {"--timeout", [](auto& o, auto& n, auto& v) { o.timeout_s = no_less(n, v, 0.0); }},
    {"--retries", [](auto& o, auto& n, auto& v) { o.retries = no_less(n, v, 0); }},
    {"--max-tokens", [](auto& o, auto& n, auto& v) { o.max_tokens = no_less(n, v, 0); }},
    {"--temperature", [](auto& o, auto& n, auto& v) { o.temperature = number<double>(n, v); }},
};

const std::map<std::string, void (*)(Options&)> FLAGS{
    {"--files", [](Options& o) { o.files = true; }},
    {"--json", [](Options& o) { o.json = true; }},
    {"--no-stream", [](Options& o) { o.stream = false; }},
    {"-h", [](Options& o) { o.help = true; }},
    {"--help", [](Options& o) { o.help = true; }},
};

// Sets the option at `at`, and advances `at` to its last argument.
void take_option(Options& options, const std::vector<std::string>& arguments, std::size_t& at) {
  std::string name = arguments[at];
  if (const auto flag = FLAGS.find(name); flag != FLAGS.end()) return flag->second(options);
  std::optional<std::string> value;
  if (const std::size_t equals = name.find('='); equals != std::string::npos) {
    value = name.substr(equals + 1);
    name.resize(equals);
  }
  const auto valued = VALUED.find(name);
  if (valued == VALUED.end()) throw UsageError("unknown option " + name);
  if (!value && at + 1 < arguments.size()) value = arguments[++at];
  if (!value) throw UsageError(name + " needs a value");
  valued->second(options, name, *value);
}

}  // namespace

Options parse(const std::vector<std::string>& arguments) {
  Options options;
  std::vector<std::string> places;
  bool options_end = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (options_end || (!argument.starts_with("--") && argument != "-h")) {
      places.push_back(argument);
    } else if (argument == "--") {
      options_end = true;
    } else {
      take_option(options, arguments, i);
    }
  }
  if (places.size() > 2) throw UsageError("more than a directory and a question");
  const bool only_question = places.size() == 1 && !std::filesystem::is_directory(places[0]);
  if (!places.empty()) (only_question ? options.question : options.directory) = places[0];
  if (places.size() == 2) options.question = places[1];
  if (!options.prompt && !options.help && !std::filesystem::is_directory(options.directory)) {
    throw UsageError("no directory " + options.directory);
  }
  return options;
}

}  // namespace ask
