#include "ask/terms.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <map>
#include <set>

namespace ask {
namespace {

constexpr std::size_t MAX_WORD_BYTES = 60;  // anything longer is data, such as Base64

// Words of most questions, which say nothing about the subject.
constexpr std::string_view STOP_WORDS =
    "a about all an and any are as at be been by can code could did do does done each file files "
    "for from get had has have how i if in into is it its made make me my no not of on or "
    "other our out please show should so tell than that the their them then there these they this "
    "those to us use used was we were what when where which who why will with would you your";

bool is_upper(char c) {
  return c >= 'A' && c <= 'Z';
}

bool is_lower(char c) {
  return c >= 'a' && c <= 'z';
}

// Letters beyond ASCII count, whatever they are.
bool is_word(char c) {
  return is_upper(c) || is_lower(c) || (c >= '0' && c <= '9') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool drop_ending(std::string& word, std::string_view ending, std::string_view instead = "") {
  constexpr std::size_t LEAST = 3;
  if (word.size() < LEAST + ending.size() || !word.ends_with(ending)) return false;
  const std::size_t rest = word.size() - ending.size();
  if (word.find_first_of("aeiouy") >= rest) return false;  // "string" is no form of "str"
  word.resize(rest);
  word += instead;
  return true;
}

// Forms of verbs that have no ending to drop.
const std::map<std::string_view, std::string_view> IRREGULAR{
    {"built", "build"},  {"chose", "choose"}, {"chosen", "choose"}, {"found", "find"},
    {"held", "hold"},    {"kept", "keep"},    {"lost", "lose"},     {"sent", "send"},
    {"thrown", "throw"}, {"written", "write"}};

// Leaves what the forms of a word have in common, which need not be a word.
void stem(std::string& word) {
  if (const auto verb = IRREGULAR.find(word); verb != IRREGULAR.end()) word = verb->second;
  if (!drop_ending(word, "ies", "y") && !drop_ending(word, "sses", "ss") && !word.ends_with("ss") &&
      !word.ends_with("us") && !word.ends_with("is")) {
    drop_ending(word, "s");
  }
  if (!drop_ending(word, "ied", "y")) {
    constexpr std::array<std::string_view, 6> ENDINGS{"ation", "ing", "ion", "ed", "er", "al"};
    const auto drops = [&](std::string_view ending) { return drop_ending(word, ending); };
    static_cast<void>(std::ranges::any_of(ENDINGS, drops));
  }
  if (word.size() > 3 && word.back() == 'e') word.pop_back();
  if (word.size() > 3 && word.back() == word[word.size() - 2]) word.pop_back();  // "stopp"
}

// Takes the first word off `text`, and returns it without the underscores around it. Returns an
// empty one at the end.
std::string_view take_word(std::string_view& text) {
  const auto starts_word = [](char c) { return is_word(c) && c != '_'; };
  const auto skipped = std::ranges::find_if(text, starts_word) - text.begin();
  text.remove_prefix(static_cast<std::size_t>(skipped));
  const auto size = std::ranges::find_if_not(text, is_word) - text.begin();
  const std::string_view word = text.substr(0, static_cast<std::size_t>(size));
  text.remove_prefix(word.size());
  return word.substr(0, word.find_last_not_of('_') + 1);
}

// Returns where the part of an identifier ends that begins at `begin`: "HTTP|Server", "max|_size".
std::size_t end_of_part(std::string_view word, std::size_t begin) {
  for (std::size_t i = begin + 1; i < word.size(); ++i) {
    const bool acronym_ends = is_upper(word[i]) && i + 1 < word.size() && is_lower(word[i + 1]);
    if (word[i] == '_' || (is_upper(word[i]) && !is_upper(word[i - 1])) || acronym_ends) return i;
  }
  return word.size();
}

}  // namespace

void for_each_term(std::string_view text, const std::function<void(std::string_view)>& use) {
  std::string term;
  const auto use_word = [&](std::string_view word) {
    if (word.size() < 2) return;
    term = word;
    for (char& c : term) c = is_upper(c) ? static_cast<char>(c - 'A' + 'a') : c;
    stem(term);
    use(term);
  };
  while (true) {
    const std::string_view word = take_word(text);
    if (word.empty()) return;
    if (word.size() > MAX_WORD_BYTES) continue;
    use_word(word);
    for (std::size_t at = 0; at < word.size();) {
      const std::size_t end = end_of_part(word, at);
      if (end - at < word.size()) use_word(word.substr(at, end - at));
      at = std::min(word.find_first_not_of('_', end), word.size());
    }
  }
}

std::vector<std::string> terms_of_question(std::string_view question) {
  std::set<std::string> left_out;
  for_each_term(STOP_WORDS, [&](std::string_view term) { left_out.emplace(term); });
  std::vector<std::string> terms;
  for_each_term(question, [&](std::string_view term) {
    if (left_out.emplace(term).second) terms.emplace_back(term);
  });
  return terms;
}

}  // namespace ask
