#include "engines/http/request.hpp"

#include <algorithm>

#include "tovren_mapstead/engines/http/errors.hpp"

namespace tovren_mapstead::engines::http {

void require_safe(const std::string& url, const Headers& headers) {
  // Not `find_first_of`, which calls a function for each character.
  const auto breaks = [](char c) { return c == '\r' || c == '\n' || c == '\0'; };
  const auto ends_name = [&](char c) { return breaks(c) || c == ' ' || c == '\t' || c == ':'; };
  if (std::ranges::any_of(url, breaks)) {
    throw HttpFailure("request cannot be sent: the URL holds a line break or NUL");
  }
  for (const auto& [name, value] : headers) {
    if (name.empty() || std::ranges::any_of(name, ends_name)) {
      throw HttpFailure(
          "request cannot be sent: a header name is empty or holds a blank, a colon or a line "
          "break");
    }
    if (std::ranges::any_of(value, breaks)) {
      throw HttpFailure("request cannot be sent: the value of the header " + name +
                        " holds a line break or NUL; was a key pasted with its line end?");
    }
  }
}

}  // namespace tovren_mapstead::engines::http
