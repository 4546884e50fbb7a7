// Writing JSON: request bodies. Strings of a hundred kilobytes are usual here, so the escaping is
// table-driven and copies runs; nlohmann's own `dump` takes several times as long.
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

namespace tovren_mapstead::engines::http {

/// `value` as JSON text, members in their order.
/// Throws HttpFailure, which names the place but not the text, for a string or a name that is not
/// valid UTF-8 and for a number that is not finite.
[[nodiscard]] std::string write_json(const nlohmann::ordered_json& value);

}  // namespace tovren_mapstead::engines::http
