#include "engines/http/curl/proxies.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>

#include <arpa/inet.h>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/curl/url.hpp"
#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Returns the first variable that is set and not empty.
std::string variable(std::initializer_list<const char*> names) {
  for (const char* const name : names) {
    const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): see Proxies()
    if (value != nullptr && *value != '\0') return value;
  }
  return "";
}

// Returns the password with and without URL escapes, and the credential that is sent in Base64 (RFC
// 7617), which a proxy may echo.
Secrets secrets_of_proxy(const UrlParts& parts) {
  if (parts.password.empty()) return {};
  return {parts.password, parts.raw_password, parts.user + ":" + parts.password};
}

using Bits = std::array<unsigned char, sizeof(in6_addr)>;

// Reads an address. Returns its number of bits; 0 if `text` is no address.
std::size_t bits_of(const std::string& text, Bits& bits) {
  const std::string bare = text.substr(0, text.find('%'));
  if (inet_pton(AF_INET, bare.c_str(), bits.data()) == 1) return sizeof(in_addr) * CHAR_BIT;
  if (inet_pton(AF_INET6, bare.c_str(), bits.data()) == 1) return sizeof(in6_addr) * CHAR_BIT;
  return 0;
}

// Returns whether an address is in a block such as "10.0.0.0/8". A block without a prefix length is
// one address.
bool is_in(const std::string& address, const std::string& block) {
  const std::size_t slash = block.find('/');
  Bits left{};
  Bits right{};
  const std::size_t size = bits_of(address, left);
  if (size == 0 || bits_of(block.substr(0, slash), right) != size) return false;
  std::size_t width = size;
  if (slash != std::string::npos) {
    const char* const end = block.data() + block.size();
    const auto [stop, error] = std::from_chars(block.data() + slash + 1, end, width);
    if (error != std::errc() || stop != end || width > size) return false;
  }
  const auto bit = [](const Bits& bits, std::size_t at) {
    return unsigned{bits.at(at / CHAR_BIT)} >> (CHAR_BIT - 1 - at % CHAR_BIT) & 1U;
  };
  for (std::size_t i = 0; i < width; ++i) {
    if (bit(left, i) != bit(right, i)) return false;
  }
  return true;
}

bool is_domain_of(std::string_view domain, std::string_view host) {
  return host == domain || (host.size() > domain.size() && host.ends_with(domain) &&
                            host[host.size() - domain.size() - 1] == '.');
}

}  // namespace

// HTTP_PROXY is not read, because in a CGI program it holds the request header "Proxy".
Proxies::Proxies()
    : _http(variable({"http_proxy", "all_proxy", "ALL_PROXY"})),
      _https(variable({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})) {
  const std::string list = lower_case(variable({"no_proxy", "NO_PROXY"}));
  constexpr std::string_view SEPARATORS = ", \t";
  for (std::size_t at = list.find_first_not_of(SEPARATORS); at != std::string::npos;) {
    const std::size_t end = std::min(list.find_first_of(SEPARATORS, at), list.size());
    std::string_view entry(list.data() + at, end - at);
    if (entry.starts_with('.')) entry.remove_prefix(1);
    if (entry.ends_with('.')) entry.remove_suffix(1);
    if (!entry.empty()) _exempt.emplace_back(entry);
    at = list.find_first_not_of(SEPARATORS, end);
  }
}

bool Proxies::is_exempt(std::string_view host) const {
  if (host.ends_with('.')) host.remove_suffix(1);
  return std::ranges::any_of(_exempt, [&](const std::string& entry) {
    return entry == "*" || is_domain_of(entry, host) || is_in(std::string(host), entry);
  });
}

std::optional<Proxy> Proxies::find(std::string_view scheme, std::string_view host) const {
  const std::string& url = scheme == "https" ? _https : _http;
  if (url.empty() || is_exempt(host)) return std::nullopt;
  std::string reason;
  const Url parsed = parse_url(url, reason);
  const UrlParts parts = parsed ? parts_of(parsed) : UrlParts();
  constexpr std::array<std::string_view, 6> SCHEMES{"http",    "https",  "socks4",
                                                    "socks4a", "socks5", "socks5h"};
  if (parsed && std::ranges::find(SCHEMES, parts.scheme) == SCHEMES.end()) {
    reason = "unsupported scheme";
  }
  if (!reason.empty()) {  // does not quote the URL, which may hold a password
    throw TransportError("malformed URL of the proxy for " + std::string(scheme) + " (" + reason +
                             "); check the proxy variables",
                         false);
  }
  return Proxy{.url = url,
               .host = parts.host,
               .port = parts.port.value_or(parts.scheme == "https" ? 443 : 1080),  // as libcurl
               .over_tls = parts.scheme == "https",
               .secrets = secrets_of_proxy(parts)};
}

}  // namespace tovren_mapstead::engines::http
