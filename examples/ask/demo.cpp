#include "ask/demo.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ask/prompt.hpp"
#include "ask/relevance.hpp"
#include "ask/text.hpp"
#include "endpoint/completion.hpp"

namespace ask {
namespace {

using endpoint::Json;

const std::map<std::string, std::string> LANGUAGES{
    {".c", "C"},       {".cc", "C++"},      {".cpp", "C++"},       {".h", "C/C++ header"},
    {".hpp", "C++"},   {".py", "Python"},   {".js", "JavaScript"}, {".ts", "TypeScript"},
    {".go", "Go"},     {".rs", "Rust"},     {".java", "Java"},     {".rb", "Ruby"},
    {".sh", "Shell"},  {".cmake", "CMake"}, {".md", "Markdown"},   {".json", "JSON"},
    {".toml", "TOML"}, {".yml", "YAML"},    {".yaml", "YAML"},     {".html", "HTML"},
    {".css", "CSS"},   {".sql", "SQL"},     {".xml", "XML"},       {".txt", "Text"}};

std::string language_of(const Section& file) {
  const std::filesystem::path path(file.name);
  if (path.filename() == "CMakeLists.txt") return "CMake";
  const auto known = LANGUAGES.find(path.extension().string());
  if (known != LANGUAGES.end()) return known->second;
  return file.text.starts_with("#!") ? "Shell" : "Other";
}

struct Share {
  std::string language;
  int files = 0;
  std::size_t bytes = 0;
};

struct Survey {
  std::vector<Section> files;  // of the prompt
  std::vector<Share> shares;   // largest first
  std::size_t bytes = 0;
};

Survey survey(const Prompt& prompt) {
  Survey survey;
  std::map<std::string, Share> shares;
  for (const Section& section : prompt.sections) {
    if (section.name == LISTING) continue;
    survey.files.push_back(section);
    survey.bytes += section.text.size();
    Share& share = shares[language_of(section)];
    ++share.files;
    share.bytes += section.text.size();
  }
  for (auto& [language, share] : shares) {
    share.language = language;
    survey.shares.push_back(share);
  }
  std::ranges::sort(survey.shares, std::greater{}, &Share::bytes);
  return survey;
}

// Returns the line that says most about the question.
std::string best_line(const Section& file, const Relevance& relevance) {
  std::istringstream lines(file.text);
  std::string best;
  double most = 0;
  for (std::string line; std::getline(lines, line);) {
    const double weight = relevance.weight_of_line(line);
    if (weight > most) {
      most = weight;
      best = line;
    }
  }
  return best.substr(std::min(best.find_first_not_of(" \t"), best.size()));
}

std::string counted(std::size_t count, const std::string& what) {
  return grouped(count) + " " + what + (count == 1 ? "" : "s");
}

std::string in_words(const Prompt& prompt, const Survey& survey) {
  if (survey.files.empty()) {
    return "You sent " + counted(prompt.question.size(), "byte") + " and no files: \"" +
           prompt.question + "\". This demo is no language model. It counts files.";
  }
  if (survey.files.front().name == STANDARD_INPUT) {
    return "You asked: \"" + prompt.question + "\" about " + counted(survey.bytes, "byte") +
           " of text. This demo is no language model. It counts bytes.";
  }
  std::string text = "You asked: \"" + prompt.question + "\"\n\nThis demo is no language model. " +
                     "The prompt holds " + counted(survey.files.size(), "file") + ", " +
                     counted(survey.bytes, "byte") + ":\n";
  for (const Share& share : survey.shares) {
    text += "- " + share.language + ": " + counted(static_cast<std::size_t>(share.files), "file") +
            ", " + counted(share.bytes, "byte") + "\n";
  }
  Relevance relevance(prompt.question);
  for (const Section& file : survey.files) relevance.add(file.name, file.text);
  text += "\nMost relevant, with the line that says most:\n";
  for (std::size_t i = 0; i < std::min<std::size_t>(survey.files.size(), 3); ++i) {
    const Section& file = survey.files[i];
    text += "- `" + file.name + "`";
    if (const std::string line = best_line(file, relevance); !line.empty())
      text += ": `" + line + "`";
    text += "\n";
  }
  return text;
}

std::string as_json(const Prompt& prompt, const Survey& survey) {
  Json object{{"question", prompt.question},
              {"files", survey.files.size()},
              {"bytes", survey.bytes},
              {"languages", Json::object()},
              {"most_relevant", Json::array()}};
  for (const Share& share : survey.shares) {
    object["languages"][share.language] = {{"files", share.files}, {"bytes", share.bytes}};
  }
  for (std::size_t i = 0; i < std::min<std::size_t>(survey.files.size(), 3); ++i) {
    object["most_relevant"].push_back(survey.files[i].name);
  }
  return object.dump(2);
}

void answer(loopback::Exchange& exchange) {
  const Json request = Json::parse(exchange.request().body);
  std::string sent;
  for (const Json& message : request.at("messages"))
    sent = message.at("content").get<std::string>();
  const Prompt prompt = from_text(sent);
  const Survey found = survey(prompt);
  const std::string reasoning = "<think>\nCounting " + counted(found.files.size(), "file") +
                                " by language and size.\n</think>\n\n";
  const std::string text =
      request.contains("response_format") ? as_json(prompt, found) : in_words(prompt, found);
  endpoint::reply(exchange, request, {.text = reasoning + text}, std::chrono::milliseconds(2));
}

}  // namespace

Demo::Demo()
    : _server([this](loopback::Exchange& exchange) {
        if (_busy.exchange(false)) {
          exchange.reply(503, R"({"error": {"message": "the demo is warming up, ask again"}})");
        } else {
          answer(exchange);
        }
      }) {}

}  // namespace ask
