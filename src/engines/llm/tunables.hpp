// How the client retries. Constants of the module; what a user may tune stands in LLMConfig.
#pragma once

#include "tovren_mapstead/engines/http/retry.hpp"

namespace tovren_mapstead::engines::llm {

/// Statuses by which a server says: ask again. 501 does not say that.
inline constexpr http::StatusSet RETRYABLE_STATUS{408, 409, 429, 500, 502, 503, 504};

/// The same for errors of the OpenAI client library, where any 5xx is worth another attempt.
inline constexpr http::StatusSet SDK_RETRYABLE_STATUS = RETRYABLE_STATUS.with_range(500, 599);

/// Seconds before the second attempt; doubles after each.
inline constexpr double BACKOFF_S = 1.0;

/// How many characters of a failed reply an error quotes.
inline constexpr int DETAIL_CHARS = 500;

}  // namespace tovren_mapstead::engines::llm
