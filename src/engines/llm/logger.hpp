// The module's log. It gets two fixed warnings, and nothing of a request or a reply.
#pragma once

#include <string_view>

namespace tovren_mapstead::engines::llm {

/// Writes a warning to the logger "tovren_mapstead.engines.llm": the host's, if it has registered
/// one of that name, else one that writes to stderr. Safe from any thread; never throws.
void warn(std::string_view text) noexcept;

}  // namespace tovren_mapstead::engines::llm
