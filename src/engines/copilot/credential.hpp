// Finds GitHub credentials. Never writes.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tovren_mapstead::engines::copilot {

/// GitHub credentials without duplicates, in the order in which to try them.
using Credentials = std::vector<std::string>;

/// The places where GitHub credentials are kept. Immutable and thread-safe.
class CredentialSources {
 public:
  /// Reads the environment: the credentials in COPILOT_GITHUB_TOKEN, GH_TOKEN and GITHUB_TOKEN, and
  /// the folder of the files (XDG_CONFIG_HOME, HOME). No other thread may call `setenv` meanwhile.
  CredentialSources();

  /// Returns the credentials of the three variables, then those for github.com in the files
  /// apps.json and hosts.json that Copilot's editor plug-ins write; at most eight. Reads the files
  /// each time. Skips a variable, file or entry that is missing, empty, unreadable or malformed.
  [[nodiscard]] Credentials find() const;

 private:
  Credentials _from_environment;
  std::filesystem::path _folder;  // empty if there is none
};

}  // namespace tovren_mapstead::engines::copilot
