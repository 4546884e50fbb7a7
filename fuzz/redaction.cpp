// Redaction. The fields of an input end at 0xFF: secrets, and last a text. A low byte in the text
// stands for a secret, spelt the way that the byte says, as servers echo what they were sent.
#include <array>
#include <cctype>

#include <nlohmann/json.hpp>

#include "engines/http/quote.hpp"
#include "engines/http/text.hpp"
#include "fuzz.hpp"

namespace {

using namespace fuzz;

std::string percent(const std::string& text, bool all) {
  std::string out;
  for (const char c : text) {
    std::array<char, 4> code{};
    std::snprintf(code.data(), code.size(), "%%%02X", static_cast<unsigned char>(c));
    out += !all && std::isalnum(static_cast<unsigned char>(c)) != 0 ? std::string(1, c) : code.data();
  }
  return out;
}

std::string json(const std::string& text, bool all) {
  std::string out = nlohmann::json(text).dump(-1, ' ', all, nlohmann::json::error_handler_t::ignore);
  out = out.substr(1, out.size() - 2);
  if (all) replace_all(out, "/", "\\/");
  return out;
}

std::string spelt(const std::string& secret, char how) {
  const std::string once = json(secret, true);
  const std::array<std::string, 8> ways{secret, once, json(once, false), json(json(once, true), true), percent(secret, false),
                                        percent(percent(secret, true), false), json(percent(secret, false), true), percent(once, true)};
  return ways.at(static_cast<std::size_t>(how) % ways.size());
}

std::string without_json(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    const auto [code_point, width] = http::read_escape(text.substr(at));
    width > 0 ? http::append_utf8(out, code_point) : out.push_back(text[at]);
    at += std::max<std::size_t>(width, 1);
  }
  return out;
}

std::string without_percent(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto digit = [&](std::size_t i) { return i < text.size() && std::isxdigit(static_cast<unsigned char>(text[i])) != 0; };
    const bool code = text[at] == '%' && digit(at + 1) && digit(at + 2);
    out += code ? static_cast<char>(std::stoi(std::string(text.substr(at + 1, 2)), nullptr, 16)) : text[at];
    if (code) at += 2;
  }
  return out;
}

// Whether `text` holds a secret in any spelling of so many levels.
bool spells(const std::string& text, const http::Secrets& secrets, int levels = 4) {
  for (const std::string& secret : secrets) {
    if (!secret.empty() && text.find(secret) != std::string::npos) return true;
  }
  if (levels == 0) return false;
  const auto deeper = [&](const std::string& next) { return next != text && spells(next, secrets, levels - 1); };
  return deeper(without_json(text)) || deeper(without_percent(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  http::Secrets secrets;
  for (std::size_t end = 0; secrets.size() < 4 && (end = rest.find('\xFF')) != std::string_view::npos; rest.remove_prefix(end + 1)) {
    secrets.emplace_back(rest.substr(0, end));
  }
  std::string text;
  for (const char c : rest) text += c > 0 && c <= 8 && !secrets.empty() ? spelt(secrets[text.size() % secrets.size()], c) : std::string(1, c);
  const std::string clean = http::redact(text, secrets);
  require(!spells(clean, secrets), text + " -> " + clean);
  if (!spells(text, secrets)) require(clean == text, text + " -> " + clean);
  const std::string quoted = http::quote(text, secrets, 40);
  require(http::is_utf8(quoted) && !spells(quoted, secrets) && quoted.find_first_of("\r\n") == std::string::npos, text + " -> " + quoted);
  return 0;
}
