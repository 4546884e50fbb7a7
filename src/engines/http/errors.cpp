#include "tovren_mapstead/engines/http/errors.hpp"

#include <algorithm>

namespace tovren_mapstead::engines::http {

std::string detail::without_nul(std::string text) {
  if (text.find('\0') == std::string::npos) return text;
  std::string out;
  for (const char c : text) c == '\0' ? out += "\uFFFD" : out += c;
  return out;
}

void Error::redact(const Secrets& secrets) {
  // Only the text, which the base class holds, is assigned.
  static_cast<std::runtime_error&>(*this) = std::runtime_error(http::redact(what(), secrets));
}

HttpFailure::HttpFailure(const std::string& what, std::optional<int> status,
                         const std::string& detail)
    : Error(detail.empty() ? what : what + ": " + detail, status),
      _detail_bytes(http::detail::without_nul(detail).size()) {}

std::string_view HttpFailure::detail() const noexcept {
  const std::string_view text = what();
  return text.substr(text.size() - std::min(text.size(), _detail_bytes));
}

void HttpFailure::redact(const Secrets& secrets) {
  const std::string detail = http::redact(this->detail(), secrets);
  Error::redact(secrets);
  // A secret that reaches from the text before into the detail takes its start away.
  const bool whole = std::string_view(what()).ends_with(": " + detail);
  _detail_bytes = whole ? detail.size() : 0;
}

}  // namespace tovren_mapstead::engines::http
