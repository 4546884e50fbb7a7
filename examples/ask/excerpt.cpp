#include "ask/excerpt.hpp"

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>
#include <vector>

namespace ask {
namespace {

constexpr std::size_t MARK_BYTES = 40;  // of "[lines 20-41 of 323]" with its line feed, at most

// How many lines before and after a hit are shown, while there is room. A hit is often the head of
// what matters, so more lines follow than precede.
struct Context {
  std::size_t before;
  std::size_t after;
};

constexpr std::array CONTEXTS{Context{2, 6}, Context{6, 18}, Context{18, 54}, Context{54, 162}};

std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t size = std::min(text.find('\n'), text.size() - 1) + 1;
    lines.push_back(text.substr(0, size));
    text.remove_prefix(size);
  }
  return lines;
}

// Lines chosen from a text, within a number of bytes.
class Choice {
 public:
  Choice(const std::vector<std::string_view>& lines, std::size_t most)
      : _lines(lines), _left(most), _chosen(lines.size()) {}

  // Adds the lines around `at` if all of them fit.
  void add(std::size_t at, const Context& context) {
    const std::size_t begin = at - std::min(at, context.before);
    const std::size_t end = std::min(at + context.after + 1, _lines.size());
    std::size_t bytes = MARK_BYTES;
    for (std::size_t i = begin; i < end; ++i) bytes += _chosen[i] ? 0 : _lines[i].size();
    if (bytes == MARK_BYTES || bytes > _left) return;
    _left -= bytes;
    std::fill_n(_chosen.begin() + static_cast<std::ptrdiff_t>(begin), end - begin, true);
  }

  [[nodiscard]] std::string text() const {
    std::string text;
    for (std::size_t i = 0; i < _lines.size(); ++i) {
      if (!_chosen[i]) continue;
      if (i == 0 || !_chosen[i - 1]) {
        std::size_t end = i;
        while (end < _lines.size() && _chosen[end]) ++end;
        text += "[lines " + std::to_string(i + 1) + "-" + std::to_string(end) + " of " +
                std::to_string(_lines.size()) + "]\n";
      }
      text += _lines[i];
    }
    return text;
  }

 private:
  const std::vector<std::string_view>& _lines;
  std::size_t _left;
  std::vector<bool> _chosen;
};

}  // namespace

std::string excerpt(std::string_view text, std::size_t most, const LineWeight& weight) {
  if (text.size() <= most) return std::string(text);
  const std::vector<std::string_view> lines = lines_of(text);
  std::vector<double> weights;
  weights.reserve(lines.size());
  for (const std::string_view line : lines) {
    weights.push_back(weight(line.substr(0, line.find('\n'))));
  }
  std::vector<std::size_t> order(lines.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::ranges::sort(order, {}, [&](std::size_t i) { return std::pair(-weights[i], i); });
  // Without a hit the start of the text says most.
  const auto hits = std::ranges::count_if(weights, [](double w) { return w > 0; });
  order.resize(std::max<std::size_t>(static_cast<std::size_t>(hits), 1));
  Choice choice(lines, most);
  for (const Context& context : CONTEXTS) {
    for (const std::size_t line : order) choice.add(line, context);
  }
  return choice.text();
}

}  // namespace ask
