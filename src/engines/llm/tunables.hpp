// How the client retries. Constants; what a user may tune is in LLMConfig.
#pragma once

#include "tovren_mapstead/engines/http/retry.hpp"

namespace tovren_mapstead::engines::llm {

/// Statuses that call for another attempt. 501 does not.
inline constexpr http::StatusSet RETRYABLE_STATUS{408, 409, 429, 500, 502, 503, 504};

/// The same for errors of the OpenAI client library, where any 5xx is worth another attempt.
inline constexpr http::StatusSet SDK_RETRYABLE_STATUS = RETRYABLE_STATUS.with_range(500, 599);

/// The wait before the second attempt, in seconds; doubles each time.
inline constexpr double BACKOFF_S = 1.0;

/// The number of characters of a failed reply that an error quotes.
inline constexpr int DETAIL_CHARS = 500;

}  // namespace tovren_mapstead::engines::llm
