// Where GitHub credentials are found. Reads, never writes.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tovren_mapstead::engines::copilot {

/// GitHub credentials in the order in which they are to be tried, each once.
using Credentials = std::vector<std::string>;

/// The places where GitHub credentials are kept. Immutable, so that any thread may search them.
class CredentialSources {
 public:
  /// Reads the environment: the credentials in COPILOT_GITHUB_TOKEN, GH_TOKEN and GITHUB_TOKEN, and
  /// where the files are (XDG_CONFIG_HOME, HOME). Not safe beside a `setenv` of another thread.
  CredentialSources();

  /// Returns the credentials of the three variables, then those for github.com in the files
  /// apps.json and hosts.json that Copilot's editor plug-ins write; eight at most. Reads the files
  /// anew. A variable, file or entry that is missing, empty, unreadable or of another shape is
  /// passed over.
  [[nodiscard]] Credentials find() const;

 private:
  Credentials _from_environment;
  std::filesystem::path _folder;  // empty: there is none
};

}  // namespace tovren_mapstead::engines::copilot
