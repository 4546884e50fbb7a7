// What the errors of the OpenAI client library mean to a retry loop.
#pragma once

#include <exception>
#include <optional>

#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// The HTTP status that an error of the OpenAI client library carries, if any.
[[nodiscard]] TOVREN_EXPORT std::optional<int> status_of(const std::exception& error);

/// Whether `error` is a timeout, a failed connection, or carries a status of `statuses`.
[[nodiscard]] TOVREN_EXPORT bool is_transient(const std::exception& error,
                                              const StatusSet& statuses);

}  // namespace tovren_mapstead::engines::http
