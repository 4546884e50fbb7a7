#include "tovren_mapstead/engines/http/secrets.hpp"

#include <algorithm>
#include <array>

#include "text/characters.hpp"
#include "text/redaction.hpp"

namespace tovren_mapstead::engines::http {
namespace {

bool is_credential(std::string_view name) {
  constexpr std::array<std::string_view, 4> ENDINGS{"api-key", "subscription-key", "-token",
                                                    "-secret"};
  return std::ranges::any_of(ENDINGS, [&](auto ending) { return name.ends_with(ending); });
}

void add(Secrets& secrets, std::string_view value) {
  value = trim_blanks(value);
  if (!value.empty()) secrets.emplace_back(value);
}

void add_cookies(Secrets& secrets, std::string_view cookies) {
  while (!cookies.empty()) {
    const std::string_view cookie = cookies.substr(0, cookies.find(';'));
    cookies.remove_prefix(std::min(cookies.size(), cookie.size() + 1));
    add(secrets, cookie.substr(cookie.find('=') + 1));
  }
}

}  // namespace

std::string redact(std::string_view text, const Secrets& secrets) {
  return redact(text, secrets, Following::nothing);
}

Secrets secrets_of(const Headers& headers) {
  Secrets secrets;
  for (const auto& [name, value] : headers) {
    const std::string lower = lower_case(name);
    if (lower == "authorization" || lower == "proxy-authorization") {
      const std::string_view credential = trim_blanks(value);
      const std::size_t blank = credential.find_first_of(" \t");
      add(secrets, blank == std::string_view::npos ? credential : credential.substr(blank));
    } else if (lower == "cookie") {
      add_cookies(secrets, value);
    } else if (is_credential(lower)) {
      add(secrets, value);
    }
  }
  return secrets;
}

}  // namespace tovren_mapstead::engines::http
