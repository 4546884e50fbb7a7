#include "ask/demo.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "ask/sources.hpp"
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

std::string language_of(const SourceFile& file) {
  const std::filesystem::path path(file.path);
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
  std::vector<Share> shares;                          // largest first
  std::vector<const SourceFile*> largest;             // three at most
  std::vector<std::pair<std::string, int>> mentions;  // word, number of files with it
  std::size_t bytes = 0;
};

std::set<std::string> words_of(const std::string& question) {
  std::set<std::string> words;
  std::string word;
  for (const char c : question + " ") {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_') {
      word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    } else if (!word.empty()) {
      if (word.size() > 4) words.insert(word);
      word.clear();
    }
  }
  return words;
}

Survey survey(const Prompt& prompt) {
  Survey survey;
  std::map<std::string, Share> shares;
  for (const SourceFile& file : prompt.files) {
    Share& share = shares[language_of(file)];
    ++share.files;
    share.bytes += file.text.size();
    survey.bytes += file.text.size();
    survey.largest.push_back(&file);
  }
  for (auto& [language, share] : shares) {
    share.language = language;
    survey.shares.push_back(share);
  }
  std::ranges::sort(survey.shares, std::greater{}, &Share::bytes);
  std::ranges::sort(survey.largest, std::greater{},
                    [](const SourceFile* file) { return file->text.size(); });
  survey.largest.resize(std::min<std::size_t>(survey.largest.size(), 3));
  for (const std::string& word : words_of(prompt.question)) {
    const auto count = std::ranges::count_if(prompt.files, [&](const SourceFile& file) {
      return file.text.find(word) != std::string::npos;
    });
    if (count > 0) survey.mentions.emplace_back(word, static_cast<int>(count));
  }
  return survey;
}

std::string percent(std::size_t part, std::size_t whole) {
  std::array<char, 16> text{};
  std::snprintf(
      text.data(), text.size(), "%.1f %%",
      100.0 * static_cast<double>(part) / static_cast<double>(std::max<std::size_t>(whole, 1)));
  return text.data();
}

std::string in_words(const Prompt& prompt, const Survey& survey) {
  if (prompt.files.empty()) {
    return "You sent " + std::to_string(prompt.question.size()) + " bytes and no files: \"" +
           prompt.question + "\". This demo can only count files.";
  }
  std::string text = "You asked: \"" + prompt.question + "\"\n\nThe tree holds " +
                     std::to_string(prompt.files.size()) + " text files, " +
                     std::to_string(survey.bytes) + " bytes in all:\n";
  for (const Share& share : survey.shares) {
    text += "- " + share.language + ": " + std::to_string(share.files) + " files, " +
            std::to_string(share.bytes) + " bytes (" + percent(share.bytes, survey.bytes) + ")\n";
  }
  text += "\nThe largest files:\n";
  for (const SourceFile* const file : survey.largest) {
    text += "- `" + file->path + "`, " + std::to_string(file->text.size()) + " bytes\n";
  }
  if (!survey.mentions.empty()) text += "\nWords of the question in the files:\n";
  for (const auto& [word, files] : survey.mentions) {
    text += "- \"" + word + "\" in " + std::to_string(files) + "\n";
  }
  return text;
}

std::string as_json(const Prompt& prompt, const Survey& survey) {
  Json object{{"question", prompt.question},
              {"files", prompt.files.size()},
              {"bytes", survey.bytes},
              {"languages", Json::object()}};
  for (const Share& share : survey.shares) {
    object["languages"][share.language] = {{"files", share.files}, {"bytes", share.bytes}};
  }
  return object.dump(2);
}

void answer(loopback::Exchange& exchange) {
  const Json request = Json::parse(exchange.request().body);
  std::string sent;
  for (const Json& message : request.at("messages"))
    sent = message.at("content").get<std::string>();
  const Prompt prompt = from_prompt(sent);
  const Survey found = survey(prompt);
  const std::string reasoning = "<think>\nCounting " + std::to_string(prompt.files.size()) +
                                " files by language and size.\n</think>\n\n";
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
