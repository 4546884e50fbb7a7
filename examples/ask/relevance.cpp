#include "ask/relevance.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <numeric>
#include <set>
#include <utility>

#include "ask/terms.hpp"

namespace ask {
namespace {

// How much a place counts against a mention in the text.
constexpr double IN_FOLDER = 1.0;
constexpr double IN_NAME = 12.0;
constexpr double IN_DEFINITION = 2.0;
constexpr double IN_OPENING = 3.0;  // the first lines of a file say what it is for
constexpr int OPENING_LINES = 3;
constexpr double TOGETHER = 0.5;  // more for each other term in the same line

// BM25: how soon more mentions stop to count, and how much a long file is marked down.
constexpr double SATURATION = 6.0;
constexpr double LENGTH_SHARE = 0.9;

// Words of a path that tell what kind of file it is, and how much such a file counts.
const std::map<std::string_view, double> KINDS{
    {"test", 0.4},     {"tests", 0.4},       {"spec", 0.4},    {"mock", 0.4},
    {"fixtures", 0.3}, {"fuzz", 0.4},        {"seeds", 0.2},   {"corpus", 0.2},
    {"bench", 0.5},    {"benchmarks", 0.5},  {"support", 0.5}, {"examples", 0.5},
    {"vendor", 0.3},   {"third_party", 0.3}, {"docs", 0.7},    {"md", 0.8},
    {"txt", 0.7},      {"changelog", 0.4},   {"json", 0.6},    {"lock", 0.2}};

// Returns the terms by which KINDS are met in a path.
std::map<std::string, double> kinds_by_term() {
  std::map<std::string, double> kinds;
  for (const auto& [word, weight] : KINDS) {
    for_each_term(word, [&, value = weight](std::string_view term) { kinds.emplace(term, value); });
  }
  return kinds;
}

bool is_definition(std::string_view line) {
  static constexpr std::array<std::string_view, 12> KEYWORDS{
      "class ", "struct ",   "enum ",  "def ",  "fn ",        "func ",
      "type ",  "function ", "trait ", "impl ", "interface ", "# "};
  const std::string_view text = line.substr(std::min(line.find_first_not_of(' '), line.size()));
  if (std::ranges::any_of(KEYWORDS, [&](auto word) { return text.starts_with(word); })) return true;
  // A function at the start of a line, as in C and most of its descendants.
  return !line.empty() && std::isalpha(static_cast<unsigned char>(line.front())) != 0 &&
         line.find('(') != std::string_view::npos && (line.ends_with('{') || line.ends_with(','));
}

}  // namespace

Relevance::Relevance(std::string_view question)
    : _terms(terms_of_question(question)), _found_in(_terms.size()) {}

std::vector<std::size_t> Relevance::hits_in(std::string_view text, double& length) const {
  std::vector<std::size_t> hits;
  for_each_term(text, [&](std::string_view term) {
    ++length;
    const auto found = std::ranges::find(_terms, term);
    if (found != _terms.end()) hits.push_back(static_cast<std::size_t>(found - _terms.begin()));
  });
  return hits;
}

void Relevance::add(std::string_view path, std::string_view text) {
  static const std::map<std::string, double> KINDS_BY_TERM = kinds_by_term();
  Document document{.in_path = std::vector<double>(_terms.size()),
                    .in_text = std::vector<double>(_terms.size())};
  for_each_term(path, [&](std::string_view term) {
    const auto kind = KINDS_BY_TERM.find(std::string(term));
    // A question about tests wants tests.
    if (kind != KINDS_BY_TERM.end() && std::ranges::count(_terms, term) == 0) {
      document.kind = std::min(document.kind, kind->second);
    }
  });
  const std::size_t name = path.rfind('/') + 1;  // 0 if there is no folder
  const std::string_view stem = path.substr(name, path.rfind('.') - name);
  const std::size_t folder = name < 2 ? 0 : path.rfind('/', name - 2) + 1;
  document.unit = path.substr(folder, name + stem.size() - folder);
  double ignored = 0;
  for (const std::size_t term : hits_in(path.substr(0, name), ignored)) {
    document.in_path[term] = IN_FOLDER;
  }
  for (const std::size_t term : hits_in(stem, ignored)) document.in_path[term] = IN_NAME;
  for (int number = 0; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const auto hits = hits_in(line, document.length);
    if (hits.empty()) continue;
    const double weight = number < OPENING_LINES ? IN_OPENING
                          : is_definition(line)  ? IN_DEFINITION
                                                 : 1.0;
    const auto different = static_cast<double>(std::set(hits.begin(), hits.end()).size());
    for (const std::size_t term : hits) {
      document.in_text[term] += weight * (1 + TOGETHER * (different - 1));
    }
  }
  for (std::size_t term = 0; term < _terms.size(); ++term) {
    if (document.in_path[term] + document.in_text[term] > 0) ++_found_in[term];
  }
  _documents.push_back(std::move(document));
}

double Relevance::rarity(std::size_t term) const {
  const auto files = static_cast<double>(_documents.size());
  return std::log(1 + (files - _found_in[term] + 0.5) / (_found_in[term] + 0.5));
}

double Relevance::score(const Document& document, double mean_length) const {
  const double length = 1 - LENGTH_SHARE + LENGTH_SHARE * document.length / mean_length;
  double sum = 0;
  for (std::size_t term = 0; term < _terms.size(); ++term) {
    const double count = document.in_path[term] + document.in_text[term] / length;
    sum += rarity(term) * count / (count + SATURATION);
  }
  return sum;
}

std::vector<std::size_t> Relevance::ranking() const {
  double length = 1;
  for (const Document& document : _documents) length += document.length;
  const auto files = static_cast<double>(std::max<std::size_t>(_documents.size(), 1));
  std::map<std::string_view, Document> units;  // all files of one name in one folder
  for (const Document& document : _documents) {
    const auto [at, first] = units.emplace(document.unit, document);
    if (first) continue;
    Document& unit = at->second;
    unit.length += document.length;
    for (std::size_t term = 0; term < _terms.size(); ++term) {
      unit.in_path[term] = std::max(unit.in_path[term], document.in_path[term]);
      unit.in_text[term] += document.in_text[term];
    }
  }
  // A header and its source have one score. The longer of them holds the details.
  std::vector<std::pair<double, double>> scores;
  for (const Document& document : _documents) {
    const bool found = score(document, length / files) > 0;
    const double together = score(units.at(document.unit), length / files) * document.kind;
    scores.emplace_back(found ? together : 0, document.length);
  }
  std::vector<std::size_t> order(_documents.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::erase_if(order, [&](std::size_t file) { return scores[file].first <= 0; });
  std::ranges::sort(order, [&](std::size_t a, std::size_t b) {
    return scores[a] != scores[b] ? scores[a] > scores[b] : a < b;
  });
  return order;
}

double Relevance::weight_of_line(std::string_view line) const {
  double ignored = 0;
  const auto hits = hits_in(line, ignored);
  double weight = 0;
  for (const std::size_t term : std::set(hits.begin(), hits.end())) weight += rarity(term);
  return is_definition(line) ? 2 * weight : weight;
}

}  // namespace ask
