// Redaction. An input is a secret, 0xFF, a text, 0xFF and a text: between the texts stands the
// secret, spelt as servers echo what they were sent, escaped as often as the shape has digits.
#include "fuzz.hpp"

namespace {

using namespace fuzz;

// `text` with each ASCII character, or only those that need it, as an escape of JSON or of a URL.
std::string escaped(const std::string& text, bool json, bool all) {
  std::string out;
  for (const char c : text) {
    std::array<char, 8> code{};
    const auto byte = static_cast<unsigned char>(c);
    std::snprintf(code.data(), code.size(), "%02x", byte);
    const bool needed =
        byte < 0x80 && (all || c < ' ' || c == '"' || c == '\\' || c == '%' || c == '/');
    out += needed ? (json ? "\\u00" : "%") + std::string(code.data()) : std::string(1, c);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input(data, size);
  const std::size_t first = input.body.find('\xFF');
  const std::size_t second = input.body.find('\xFF', first + 1);
  if (first == 0 || second == std::string::npos) return 0;
  const std::string secret = input.body.substr(0, first);
  std::string spelt = secret;
  for (unsigned digits = input.shape % 64; digits > 0; digits /= 4)
    spelt = escaped(spelt, digits % 2 == 1, digits % 4 < 2);
  const std::string before = input.body.substr(first + 1, second - first - 1);
  const std::string after = input.body.substr(second + 1);
  for (const http::Secrets& secrets :
       {http::Secrets{secret}, http::Secrets{secret, before, after}}) {
    const std::string masked =
        http::redact(std::string(before).append(" ").append(spelt).append(after), secrets);
    require(masked == http::redact(masked, secrets), masked);
    for (const std::string& gone : secrets)
      require(gone.empty() || masked.find(gone) == std::string::npos, masked);
    require(masked.find(spelt) == std::string::npos, masked);
  }
  constexpr std::size_t FIRST_IN_BASE64 = 8;  // bytes of a secret that is looked for in Base64
  const std::string plain = before + after;
  if (secret.size() < FIRST_IN_BASE64 && plain.find(secret) == std::string::npos &&
      plain.find_first_of("\\%") == std::string::npos)
    require(http::redact(plain, {secret}) == plain, plain);
  return 0;
}
