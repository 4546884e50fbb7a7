// The way to GitHub Copilot's chat endpoint: from a stored GitHub credential to the headers of a
// chat request. Knows nothing of chat itself.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::copilot {

/// The base URL of Copilot's chat-completions API.
inline constexpr const char* COPILOT_BASE = "https://api.githubcopilot.com";

/// What to tell a user without a credential.
inline constexpr const char* NO_CREDENTIAL =
    "No GitHub credential for Copilot found: sign in to Copilot in an editor, or set "
    "COPILOT_GITHUB_TOKEN to an OAuth token of such a sign-in.";

/// Why there is no Copilot token. The text says what to do and holds no credential and no token.
class TOVREN_EXPORT CopilotError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What an adapter may be given.
struct AuthOptions {
  const std::shared_ptr<http::Transport> transport{};  ///< Absent: the engine's own.
  const std::function<double()> unix_time_s{};         ///< Wall clock; absent: the system's.
};

/// The bounds of one call.
struct CallBounds {
  const double timeout_s = 30.0;       ///< Longest silence during an exchange, in seconds; 0: any.
  const http::StopTest should_stop{};  ///< True ends the call.
  const std::optional<http::Deadline> deadline{};  ///< The moment by which the call ends.
};

/// Holds the short-lived Copilot token of a client and renews it in time.
/// Usable from any number of threads at once: those that need a token at the same moment make one
/// exchange between them.
class TOVREN_EXPORT CopilotAuth {
 public:
  /// Reads nothing and sends nothing yet.
  explicit CopilotAuth(const AuthOptions& options = {});
  CopilotAuth(const CopilotAuth&) = delete;
  CopilotAuth& operator=(const CopilotAuth&) = delete;
  ~CopilotAuth();

  /// Whether a GitHub credential can be found. Sends nothing.
  [[nodiscard]] bool is_available() const;

  /// The headers of one chat request, with a live token. Looks for the credential anew, so that one
  /// that has changed is picked up, and exchanges it for a token when the one at hand is near its
  /// end: one GET, not repeated here.
  /// Throws CopilotError when there is no credential, GitHub refuses it or answers nonsense;
  /// http::Retryable, http::Stopped, http::DeadlineExceeded and what `should_stop` throws.
  [[nodiscard]] http::Headers chat_headers(const CallBounds& bounds = {});

  /// Drops the token that these headers bear: the endpoint has refused it.
  void drop_token(const http::Headers& chat_headers);

  /// The credentials and tokens used last, eight at most, to be kept out of error texts.
  [[nodiscard]] http::Secrets secrets() const;

 private:
  class Tokens;
  std::unique_ptr<Tokens> _tokens;
};

}  // namespace tovren_mapstead::engines::copilot
