// Exchanges a GitHub credential for a Copilot token.
#pragma once

#include <optional>
#include <string>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"

#include "engines/copilot/credential.hpp"

namespace tovren_mapstead::engines::copilot {

/// A Copilot token and its expiry, by two clocks: a wall clock can be set, and a steady clock has
/// no dates.
struct Token {
  std::string text;
  std::string credential;                     // that was exchanged for it
  Credentials refused;                        // credentials that were tried before
  double expires_at_s = 0;                    // Unix time
  std::optional<http::Deadline> valid_until;  // absent: only the wall clock decides
  std::optional<http::Deadline> renew_at;     // absent: at the expiry

  /// Returns whether an exchange of `credentials` would return a token of the same credential: the
  /// first that GitHub does not refuse.
  [[nodiscard]] bool belongs_to(const Credentials& credentials) const;

  /// Returns whether a call that begins now can use it.
  [[nodiscard]] bool valid(double unix_now_s, http::Clock::time_point now) const;

  /// Returns whether to renew it now.
  [[nodiscard]] bool due(http::Clock::time_point now) const;

  /// Postpones the renewal by a minute, or by half of the remaining time if that is less.
  void postpone_renewal(double unix_now_s, http::Clock::time_point now);
};

/// Returns a token for the first credential that GitHub does not refuse; sends a GET for each.
/// Redacts `secrets` and the credentials from error texts. Throws CopilotError, http::Retryable,
/// http::Stopped, http::DeadlineExceeded and what the stop test throws.
[[nodiscard]] Token fetch_token(const Credentials& credentials, const AuthOptions& options,
                                const CallBounds& bounds, const http::Secrets& secrets);

/// Returns the headers of a chat request with `token`.
[[nodiscard]] http::Headers headers_with(const std::string& token);

}  // namespace tovren_mapstead::engines::copilot
