// Where a GitHub credential is found. Reads, never writes.
#pragma once

#include <optional>
#include <string>

namespace tovren_mapstead::engines::copilot {

/// The first GitHub credential: of the environment variables COPILOT_GITHUB_TOKEN, GH_TOKEN and
/// GITHUB_TOKEN, then of the files apps.json and hosts.json that Copilot's editor plug-ins write. A
/// variable or file that is missing, empty, unreadable or of another shape is passed over.
[[nodiscard]] std::optional<std::string> find_credential();

}  // namespace tovren_mapstead::engines::copilot
