// What to leave out of a request that a provider rejects.
#pragma once

#include <optional>
#include <string_view>

namespace tovren_mapstead::engines::llm {

enum class Fallback { none, without_json_mode, without_streaming };

/// The feature to do without after a failure with this status and text, if the request used one
/// that the text names; says so in the log.
[[nodiscard]] Fallback choose_fallback(std::optional<int> status, std::string_view text,
                                       bool response_json, bool stream);

}  // namespace tovren_mapstead::engines::llm
