// Authentication for GitHub Copilot's chat endpoint: from a stored GitHub credential to the headers
// of a chat request. Does not know chat itself.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/export.hpp"

/// The Copilot adapter.
namespace tovren_mapstead::engines::copilot {

/// The base URL of Copilot's chat-completions API.
inline constexpr const char* COPILOT_BASE = "https://api.githubcopilot.com";

/// The error text for a user without a credential.
inline constexpr const char* NO_CREDENTIAL =
    "No GitHub credential for Copilot found: sign in to Copilot in an editor, or set "
    "COPILOT_GITHUB_TOKEN to an OAuth token of such a sign-in.";

/// A failure to get a Copilot token. The text says what to do, and holds no credential and no
/// token.
class TOVREN_EXPORT CopilotError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Replaceable parts of a CopilotAuth.
struct AuthOptions {
  std::shared_ptr<http::Transport> transport{};  ///< Null for the engine's own.
  std::function<double()> unix_time_s{};         ///< Wall clock; empty for the system's.
};

/// The bounds of one call.
struct CallBounds {
  double timeout_s = 30.0;                   ///< Idle timeout in seconds; 0 means no limit.
  http::StopTest should_stop{};              ///< Returns true to cancel the call.
  std::optional<http::Deadline> deadline{};  ///< When the call ends at the latest.
};

/// The error text for status 401 of the chat endpoint, after which the token is dropped.
inline constexpr std::string_view TOKEN_REFUSED =
    "Copilot no longer accepts its token; call again to get a new one";

/// Holds the short-lived Copilot token of a client and renews it in time. Thread-safe: threads that
/// need a token at the same time share one exchange. A forked child gets a token of its own.
class TOVREN_EXPORT CopilotAuth {
 public:
  /// Reads the environment: the credentials in COPILOT_GITHUB_TOKEN, GH_TOKEN and GITHUB_TOKEN, and
  /// the folder of credential files (XDG_CONFIG_HOME, HOME). No other thread may set variables
  /// meanwhile. No other function reads the environment. Sends nothing.
  explicit CopilotAuth(const AuthOptions& options = {});
  CopilotAuth(const CopilotAuth&) = delete;
  CopilotAuth& operator=(const CopilotAuth&) = delete;
  ~CopilotAuth();

  /// Returns whether there is a GitHub credential: in the environment at construction, or in the
  /// files now. Sends nothing.
  [[nodiscard]] bool is_available() const;

  /// Returns the headers of one chat request, with a valid token. Reads the credential files each
  /// time, so it finds changed credentials. If there is no token or it is near its end, exchanges
  /// the first credential that GitHub does not refuse: one GET per credential, not retried here. If
  /// the renewal of a valid token fails, returns that token. Such a renewal takes at most 5 s and a
  /// quarter of the time before the deadline, and is tried again after a minute. Throws
  /// CopilotError if there is no credential, GitHub refuses all of them, or its reply is malformed;
  /// http::Retryable, http::Stopped, http::DeadlineExceeded and what `should_stop` throws.
  [[nodiscard]] http::Headers chat_headers(const CallBounds& bounds = {});

  /// Drops the token in `chat_headers`. Call it after the endpoint has refused them.
  void drop_token(const http::Headers& chat_headers);

  /// Returns the credentials and tokens used last, at most 16, to redact from error texts.
  [[nodiscard]] http::Secrets secrets() const;

 private:
  class Tokens;
  std::unique_ptr<Tokens> _tokens;
};

}  // namespace tovren_mapstead::engines::copilot
