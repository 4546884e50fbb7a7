// Splits text into the terms by which files are found.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ask {

/// Calls `use` for each term of `text`, from left to right. A term is a word in lower case without
/// its ending: "retries", "Retrying" and "retry" are one term. An identifier is a term, and so are
/// its parts: "max_retries" and "MaxRetries" give "retry", too. The argument of `use` lives during
/// the call only.
void for_each_term(std::string_view text, const std::function<void(std::string_view)>& use);

/// Returns the terms of a question without those that say nothing, each once.
std::vector<std::string> terms_of_question(std::string_view question);

}  // namespace ask
