// What Copilot's adapter is given: the reply to a token request, or the file of a credential. No
// error text repeats the credential.
#include "tovren_mapstead/engines/copilot.hpp"

#include <filesystem>
#include <fstream>

#include "engines/copilot/credential.hpp"
#include "fuzz.hpp"

namespace {

using namespace fuzz;
namespace copilot = tovren_mapstead::engines::copilot;

void write_files(const std::string& apps, const std::string& hosts) {
  std::string name = std::filesystem::temp_directory_path() / "copilot-XXXXXX";
  static const std::filesystem::path FOLDER = mkdtemp(name.data());
  std::filesystem::create_directories(FOLDER / "github-copilot");
  setenv("XDG_CONFIG_HOME", FOLDER.c_str(), 1);
  for (const char* const variable : {"COPILOT_GITHUB_TOKEN", "GH_TOKEN", "GITHUB_TOKEN"}) unsetenv(variable);
  std::ofstream(FOLDER / "github-copilot/apps.json", std::ios::binary) << apps;
  std::ofstream(FOLDER / "github-copilot/hosts.json", std::ios::binary) << hosts;
  if (apps.empty() && hosts.empty()) std::filesystem::remove_all(FOLDER);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input(data, size);
  const bool is_file = input.shape % 2 == 1;
  const std::string known = R"({"github.com":{"oauth_token":"gho_credential"}})";
  write_files(is_file ? input.body : "[]", is_file ? "[]" : known);
  const playback::Reply reply{.status = std::array{200, 200, 403, 500}.at(input.shape / 2 % 4), .pieces = is_file ? std::vector<std::string>{"{}"} : input.cut(8)};
  copilot::CopilotAuth auth({.transport = std::make_shared<playback::Playback>(std::deque{reply}), .unix_time_s = [] { return 1e9; }});
  const copilot::Credentials found = copilot::CredentialSources().find();
  if (!is_file) require(found == copilot::Credentials{"gho_credential"}, "what was written");
  for (const std::string& credential : found) {
    require(!credential.empty() && credential.find_first_of(" \r\n") != 0, credential);
  }
  try {
    const std::string bearer = auth.chat_headers().at("Authorization");
    require(bearer.size() > 7 && bearer.find_first_of(std::string_view(" \r\n\0", 4), 7) == std::string::npos, bearer);
  } catch (const std::runtime_error& error) {
    require(dynamic_cast<const copilot::CopilotError*>(&error) != nullptr || dynamic_cast<const http::Retryable*>(&error) != nullptr, error.what());
    for (const std::string& credential : found) {
      clean(error.what(), credential.size() > 8 ? credential : "gho_");
    }
  }
  write_files("", "");
  return 0;
}
