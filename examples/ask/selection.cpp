#include "ask/selection.hpp"

#include <algorithm>
#include <array>
#include <map>
#include <numeric>
#include <optional>
#include <utility>

#include <strings.h>

#include "ask/excerpt.hpp"
#include "ask/relevance.hpp"
#include "ask/text.hpp"
#include "ask/tree.hpp"

namespace ask {
namespace {

namespace fs = std::filesystem;

// Of the budget, for the listing and for the README: enough for an outline, little beside the rest.
constexpr std::size_t OUTLINE_SHARE = 8;
// Each file gets at most this part of what is left, so that the most relevant get most.
constexpr std::size_t FILE_SHARE = 4;
constexpr std::size_t LEAST_BYTES = 1500;  // of a file; less says little
constexpr std::size_t MAX_READ_BYTES = std::size_t{256}
                                       << 20U;  // of a tree; then paths count alone

bool is_readme(const std::string& path) {
  return path.find('/') == std::string::npos && strncasecmp(path.c_str(), "readme", 6) == 0;
}

// Returns the first `depth` folders of a path.
std::string folder_of(const std::string& path, std::size_t depth) {
  std::size_t end = 0;
  for (; depth > 0; --depth) {
    const std::size_t slash = path.find('/', end);
    if (slash == std::string::npos) break;
    end = slash + 1;
  }
  return end == 0 ? "./" : path.substr(0, end);
}

// Returns a line for each folder, with the names of its files or only their number.
std::string listing(const std::vector<std::string>& paths, std::size_t depth, bool names) {
  std::map<std::string, std::pair<int, std::string>> folders;
  for (const std::string& path : paths) {
    auto& [count, files] = folders[folder_of(path, depth)];
    ++count;
    if (names) files += " " + path.substr(path.rfind('/') + 1);
  }
  std::string text;
  for (const auto& [folder, found] : folders) {
    const std::string what = names ? found.second : " " + std::to_string(found.first) + " files";
    text += printable(folder + what, Lines::join) + "\n";
  }
  return text;
}

// Returns the most detailed listing of at most `most` bytes.
std::string listing_within(const std::vector<std::string>& paths, std::size_t most) {
  std::string text = listing(paths, std::string::npos, true);
  for (const std::size_t depth :
       {std::string::npos, std::size_t{3}, std::size_t{2}, std::size_t{1}}) {
    if (text.size() <= most) return text;
    text = listing(paths, depth, false);
  }
  if (text.size() > most) text.resize(text.rfind('\n', most) + 1);
  return text;
}

// Returns the numbers of all files, those in few folders first.
std::vector<std::size_t> shallowest(const std::vector<std::string>& paths) {
  std::vector<std::size_t> order(paths.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::ranges::sort(order, {},
                    [&](auto i) { return std::pair(std::ranges::count(paths[i], '/'), i); });
  return order;
}

// The sections of a prompt within its budget.
class Builder {
 public:
  Builder(const fs::path& root, const Relevance& relevance, Prompt& prompt, std::size_t budget)
      : _root(root), _relevance(relevance), _prompt(prompt) {
    const std::size_t used = to_text(prompt).size();
    _left = budget - std::min(budget, used);
  }

  [[nodiscard]] std::size_t left() const { return _left; }

  // Returns a section with at most `most` bytes of a file, and takes it from what is left.
  std::optional<Section> of_file(const std::string& path, std::size_t most) {
    Section section{.name = printable(path, Lines::join), .text = {}};
    const std::size_t head = to_text(section).size() + 8;  // with the digits of its size
    most = std::min(most, _left);
    const auto text = head < most ? read_text(_root / path) : std::nullopt;
    if (!text) return std::nullopt;
    section.text = excerpt(*text, most - head,
                           [&](std::string_view line) { return _relevance.weight_of_line(line); });
    if (section.text.empty()) return std::nullopt;
    take(section);
    return section;
  }

  void take(const Section& section) { _left -= std::min(_left, to_text(section).size()); }

  void add(Section section) { _prompt.sections.push_back(std::move(section)); }

 private:
  const fs::path& _root;
  const Relevance& _relevance;
  Prompt& _prompt;
  std::size_t _left = 0;
};

}  // namespace

Selection select(const fs::path& root, std::string_view question, std::size_t budget) {
  const std::vector<std::string> paths = list(root);
  Relevance relevance(question);
  std::size_t bytes = 0;
  for (const std::string& path : paths) {
    const auto text = bytes < MAX_READ_BYTES ? read_text(root / path) : std::nullopt;
    bytes += text ? text->size() : 0;
    relevance.add(path, text ? *text : std::string_view());
  }
  std::vector<std::size_t> order = relevance.ranking();
  if (order.empty()) order = shallowest(paths);
  // The README comes along, if its place is last.
  const auto readme = std::ranges::find_if(paths, is_readme);
  const auto readme_number = static_cast<std::size_t>(readme - paths.begin());
  if (readme != paths.end() && std::ranges::count(order, readme_number) == 0) {
    order.push_back(readme_number);
  }

  Selection selection{.paths = {}, .files_in_tree = paths.size(), .prompt = {}};
  selection.prompt.question = printable(question, Lines::keep);
  Builder builder(root, relevance, selection.prompt, budget);
  Section outline{.name = LISTING, .text = listing_within(paths, builder.left() / OUTLINE_SHARE)};
  builder.take(outline);
  if (!outline.text.empty()) builder.add(std::move(outline));
  std::optional<Section> start_of_readme;
  if (readme != paths.end()) {
    start_of_readme = builder.of_file(*readme, builder.left() / OUTLINE_SHARE);
  }
  for (const std::size_t number : order) {
    const std::size_t most = std::max(builder.left() / FILE_SHARE, LEAST_BYTES);
    auto section = number == readme_number ? std::exchange(start_of_readme, std::nullopt)
                                           : builder.of_file(paths[number], most);
    if (!section) continue;
    selection.paths.push_back(paths[number]);
    builder.add(std::move(*section));
  }
  return selection;
}

}  // namespace ask
