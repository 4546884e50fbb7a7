// Ranks files by their relevance to a question: BM25 over their paths and contents.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ask {

/// Counts a question's terms in files and keeps these counts only, so a large tree needs little
/// memory.
class Relevance {
 public:
  explicit Relevance(std::string_view question);

  /// Adds a file. `text` may be empty, then the path counts alone.
  void add(std::string_view path, std::string_view text);

  /// Returns the numbers of the files that hold a term of the question, in the order of `add` from
  /// 0, the most relevant first.
  [[nodiscard]] std::vector<std::size_t> ranking() const;

  /// Returns how much a line says about the question: 0 for nothing. Meaningful after all `add`.
  [[nodiscard]] double weight_of_line(std::string_view line) const;

 private:
  struct Document {
    std::vector<double> in_path;  // for each term of the question, weighted
    std::vector<double> in_text;
    std::string unit{};  // the innermost folder, and the name without its extension
    double length = 0;   // in terms
    double kind = 1;     // tests, examples and documents count less than sources
  };

  [[nodiscard]] std::vector<std::size_t> hits_in(std::string_view text, double& length) const;
  [[nodiscard]] double rarity(std::size_t term) const;
  [[nodiscard]] double score(const Document& document, double mean_length) const;

  std::vector<std::string> _terms;
  std::vector<Document> _documents;
  std::vector<double> _found_in;  // for each term, the number of files with it
};

}  // namespace ask
