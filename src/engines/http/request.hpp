// Checks requests before they are sent.
#pragma once

#include <string>

#include "tovren_mapstead/engines/http/secrets.hpp"

namespace tovren_mapstead::engines::http {

/// Throws HttpFailure if `url` or `headers` hold a line break or NUL: header lines are written as
/// they are given, so a line break in a value could add another header.
void require_safe(const std::string& url, const Headers& headers);

}  // namespace tovren_mapstead::engines::http
