// What Copilot's adapter is given: the reply to a token request, or the file of a credential. 0x01
// stands for a token there, which no error text may repeat.
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tovren_mapstead/engines/copilot.hpp"

#include "engines/copilot/credential.hpp"
#include "fuzz.hpp"

namespace {

using namespace fuzz;
namespace copilot = tovren_mapstead::engines::copilot;

const http::Secrets SECRETS{"gho_credential", "tid=token;exp=1"};

// A configuration folder of this process alone.
const std::filesystem::path& folder() {
  static const struct Folder {
    Folder() {
      std::string name = std::filesystem::temp_directory_path() / "copilot-XXXXXX";
      path = mkdtemp(name.data());
      std::filesystem::create_directories(path / "github-copilot");
      setenv("XDG_CONFIG_HOME", path.c_str(), 1);
      for (const char* const variable : {"COPILOT_GITHUB_TOKEN", "GH_TOKEN", "GITHUB_TOKEN"}) unsetenv(variable);
    }

    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    ~Folder() { std::filesystem::remove_all(path); }

    std::filesystem::path path;
  } FOLDER;
  return FOLDER.path;
}

void write(const char* name, std::string_view text) {
  std::ofstream(folder() / "github-copilot" / name, std::ios::binary) << text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto [shape, body] = Input(data, size);
  replace_all(body, "\x01", SECRETS[1]);
  const bool is_file = shape % 2 == 1;
  write("apps.json", is_file ? body : "");
  write("hosts.json", is_file ? "" : R"({"github.com":{"oauth_token":"gho_credential"}})");
  const int status = std::array{200, 200, 401, 500}.at(shape / 2 % 4);
  const playback::Reply reply{.status = status, .pieces = is_file ? std::vector<std::string>{"{}"} : cut(body, 8)};
  copilot::CopilotAuth auth({.transport = std::make_shared<playback::Playback>(std::deque{reply}), .unix_time_s = [] { return 1e9; }});
  const auto credential = copilot::find_credential();
  require(auth.is_available() == credential.has_value());
  require(is_file ? credential.value_or("x").find_first_of(" \r\n") != 0 : credential == SECRETS[0]);
  try {
    const http::Headers headers = auth.chat_headers();
    const std::string bearer = headers.at("Authorization");
    require(!is_file && bearer.starts_with("Bearer ") && bearer.size() > 7, bearer);
    require(bearer.find_first_of(std::string_view(" \r\n\0", 4), 7) == std::string::npos, bearer);
  } catch (const copilot::CopilotError& error) {
    require_clean(error.what(), SECRETS);
  } catch (const http::Retryable& error) {
    require_clean(error.what(), SECRETS);
  }
  return 0;
}
