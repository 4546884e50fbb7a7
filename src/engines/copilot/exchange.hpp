// One exchange of a GitHub credential for a Copilot token.
#pragma once

#include <optional>
#include <string>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"

namespace tovren_mapstead::engines::copilot {

/// A Copilot token and for how long it is good. Two clocks watch over it, because a wall clock can
/// be set and a steady one knows no dates.
struct Token {
  std::string text;
  std::string credential;                  // that it was given for
  double expires_at_s = 0;                 // Unix time
  std::optional<http::Deadline> renew_at;  // absent: the wall clock alone decides

  /// Whether it need not be renewed yet.
  [[nodiscard]] bool fresh(double unix_now_s, http::Clock::time_point now) const;
};

/// Asks GitHub for a token, once. `secrets` and the credential are kept out of error texts.
/// Throws CopilotError, http::Retryable, http::Stopped, http::DeadlineExceeded and what the stop
/// test throws.
[[nodiscard]] Token exchange(const std::string& credential, const AuthOptions& options,
                             const CallBounds& bounds, const http::Secrets& secrets);

/// The headers of a chat request that bears `token`.
[[nodiscard]] http::Headers headers_with(const std::string& token);

}  // namespace tovren_mapstead::engines::copilot
