// The exchange of a GitHub credential for a Copilot token.
#pragma once

#include <optional>
#include <string>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"

#include "engines/copilot/credential.hpp"

namespace tovren_mapstead::engines::copilot {

/// A Copilot token and for how long it is good. Two clocks watch over it, because a wall clock can
/// be set and a steady one knows no dates.
struct Token {
  std::string text;
  std::string credential;                    // that it was given for
  Credentials refused;                       // tried before that one
  double expires_at_s = 0;                   // Unix time
  std::optional<http::Deadline> good_until;  // absent: the wall clock alone decides
  std::optional<http::Deadline> renew_at;    // absent: not before its end

  /// Returns whether it is what an exchange of these credentials would give: the token of the first
  /// that GitHub does not refuse.
  [[nodiscard]] bool belongs_to(const Credentials& credentials) const;

  /// Returns whether it lasts for a call that begins now.
  [[nodiscard]] bool good(double unix_now_s, http::Clock::time_point now) const;

  /// Returns whether it is time to ask for the next one.
  [[nodiscard]] bool due(http::Clock::time_point now) const;

  /// Puts the next renewal off by a minute, or by half of what the token is still good for.
  void put_renewal_off(double unix_now_s, http::Clock::time_point now);
};

/// Asks GitHub for a token for each credential in turn until it refuses no more: a GET for each.
/// `secrets` and the credentials are kept out of error texts.
/// Throws CopilotError, http::Retryable, http::Stopped, http::DeadlineExceeded and what the stop
/// test throws.
[[nodiscard]] Token fetch_token(const Credentials& credentials, const AuthOptions& options,
                                const CallBounds& bounds, const http::Secrets& secrets);

/// The headers of a chat request that bears `token`.
[[nodiscard]] http::Headers headers_with(const std::string& token);

}  // namespace tovren_mapstead::engines::copilot
