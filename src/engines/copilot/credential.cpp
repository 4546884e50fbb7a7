#include "engines/copilot/credential.hpp"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include <nlohmann/json.hpp>

namespace tovren_mapstead::engines::copilot {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;  // finds members in logarithmic time

constexpr std::array<const char*, 3> VARIABLES{"COPILOT_GITHUB_TOKEN", "GH_TOKEN", "GITHUB_TOKEN"};
constexpr std::array<const char*, 2> FILES{"apps.json", "hosts.json"};
constexpr std::uintmax_t MAX_FILE_BYTES = std::uintmax_t{1} << 20U;

std::string variable(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): only read here
  return value == nullptr ? "" : value;
}

// Pasted values come with blanks and line ends.
std::string trimmed(const std::string& text) {
  constexpr std::string_view BLANKS = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(BLANKS);
  return begin == std::string::npos ? ""
                                    : text.substr(begin, text.find_last_not_of(BLANKS) + 1 - begin);
}

fs::path plugin_folder() {
  fs::path base = variable("XDG_CONFIG_HOME");
  // A relative one is no valid setting (XDG Base Directory Specification).
  if (!base.is_absolute()) base = fs::path(variable("HOME")) / ".config";
  return base.is_absolute() ? base / "github-copilot" : fs::path();
}

// Keys are hosts, in newer files followed by the identifier of the application that signed in.
std::optional<std::string> token_in(const Json& file) {
  if (!file.is_object()) return std::nullopt;
  for (const auto& [key, entry] : file.get_ref<const Json::object_t&>()) {
    if (key != "github.com" && !key.starts_with("github.com:")) continue;
    if (!entry.is_object() || !entry.contains("oauth_token")) continue;
    const Json& token = entry["oauth_token"];
    if (!token.is_string()) continue;
    if (std::string text = trimmed(token.get<std::string>()); !text.empty()) return text;
  }
  return std::nullopt;
}

std::optional<std::string> token_in(const fs::path& path) {
  std::error_code error;
  // Anything but a plain file of a plausible size could block or never end.
  if (!fs::is_regular_file(path, error) || fs::file_size(path, error) > MAX_FILE_BYTES || error) {
    return std::nullopt;
  }
  std::ifstream file(path, std::ios::binary);
  return token_in(Json::parse(file, nullptr, false));
}

}  // namespace

std::optional<std::string> find_credential() {
  for (const char* const name : VARIABLES) {
    if (std::string value = trimmed(variable(name)); !value.empty()) return value;
  }
  const fs::path folder = plugin_folder();
  if (folder.empty()) return std::nullopt;
  for (const char* const name : FILES) {
    if (auto token = token_in(folder / name)) return token;
  }
  return std::nullopt;
}

}  // namespace tovren_mapstead::engines::copilot
