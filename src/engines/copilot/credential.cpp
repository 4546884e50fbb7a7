#include "engines/copilot/credential.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <optional>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tovren_mapstead/engines/http/json.hpp"

#include "json/json_members.hpp"
#include "text/characters.hpp"

namespace tovren_mapstead::engines::copilot {
namespace {

namespace fs = std::filesystem;

constexpr std::array<const char*, 3> VARIABLES{"COPILOT_GITHUB_TOKEN", "GH_TOKEN", "GITHUB_TOKEN"};
constexpr std::array<const char*, 2> FILES{"apps.json", "hosts.json"};

// Each credential may cost a request.
constexpr std::size_t MAX_CREDENTIALS = 8;

constexpr std::size_t MAX_FILE_BYTES = std::size_t{1} << 20U;

std::string variable(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): only read here
  return value == nullptr ? "" : value;
}

void add(Credentials& found, std::string_view text) {
  std::string credential(http::trim_blanks(text));  // pasted values often have blanks and line ends
  if (credential.empty() || found.size() == MAX_CREDENTIALS) return;
  if (std::ranges::find(found, credential) == found.end()) found.push_back(std::move(credential));
}

fs::path plugin_folder() {
  fs::path base = variable("XDG_CONFIG_HOME");
  // A relative path is invalid (XDG Base Directory Specification).
  if (!base.is_absolute()) base = fs::path(variable("HOME")) / ".config";
  return base.is_absolute() ? base / "github-copilot" : fs::path();
}

class Descriptor {
 public:
  explicit Descriptor(int number) : _number(number) {}

  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  ~Descriptor() {
    if (_number >= 0) close(_number);
  }

  [[nodiscard]] int number() const noexcept { return _number; }

 private:
  int _number;
};

// Returns the content of a regular file of at most MAX_FILE_BYTES. Other files could block or never
// end. The check follows the opening, so that the file cannot be replaced in between.
std::optional<std::string> content_of(const fs::path& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));

  struct stat status {};

  if (file.number() < 0 || fstat(file.number(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  std::string content(MAX_FILE_BYTES + 1, '\0');
  std::size_t size = 0;
  while (size < content.size()) {
    const ssize_t count = read(file.number(), content.data() + size, content.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  if (size > MAX_FILE_BYTES) return std::nullopt;
  content.resize(size);
  return content;
}

// A key is a host, followed in newer files by the identifier of the application that signed in. An
// entry without an identifier is tried first, whatever the order in the file.
void add_from(const http::JsonValue& file, Credentials& found) {
  std::map<std::string, std::string> tokens;
  http::for_each_member(file, [&](std::string_view key, const auto& entry) {
    if (key != "github.com" && !key.starts_with("github.com:")) return;
    const http::JsonValue token = entry()["oauth_token"];
    if (token.kind() == http::JsonValue::Kind::string) tokens[std::string(key)] = token.text();
  });
  for (const auto& [key, token] : tokens) add(found, token);
}

}  // namespace

CredentialSources::CredentialSources() : _folder(plugin_folder()) {
  for (const char* const name : VARIABLES) add(_from_environment, variable(name));
}

Credentials CredentialSources::find() const {
  Credentials found = _from_environment;
  if (_folder.empty()) return found;
  for (const char* const name : FILES) {
    if (const auto content = content_of(_folder / name)) {
      http::JsonReader reader;
      add_from(reader.parse(*content), found);
    }
  }
  return found;
}

}  // namespace tovren_mapstead::engines::copilot
