// The way to GitHub Copilot's chat endpoint: from a stored GitHub credential to the headers of a
// chat request. Knows nothing of chat itself.
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

/// What a user can do when the chat endpoint answers 401: its token is then dropped.
inline constexpr std::string_view TOKEN_REFUSED =
    "Copilot no longer accepts its token; call again to get a new one";

/// Holds the short-lived Copilot token of a client and renews it in time.
/// Usable from any number of threads at once: those that need a token at the same moment make one
/// exchange between them. Usable in a child process, too, which gets a token of its own.
class TOVREN_EXPORT CopilotAuth {
 public:
  /// Reads the environment, here and nowhere else: the credentials in COPILOT_GITHUB_TOKEN,
  /// GH_TOKEN and GITHUB_TOKEN, and where credential files are (XDG_CONFIG_HOME, HOME). So no other
  /// thread may set variables meanwhile, but any may afterwards. Sends nothing.
  explicit CopilotAuth(const AuthOptions& options = {});
  CopilotAuth(const CopilotAuth&) = delete;
  CopilotAuth& operator=(const CopilotAuth&) = delete;
  ~CopilotAuth();

  /// Returns whether a GitHub credential can be found: in the environment as it was, or in the
  /// files as they are. Sends nothing.
  [[nodiscard]] bool is_available() const;

  /// Returns the headers of one chat request, with a live token. Looks for credential files anew,
  /// so that a credential that has changed is picked up, and exchanges the first that GitHub does
  /// not refuse for a token when there is none or it is near its end: one GET a credential, not
  /// repeated here. A token that is good is returned even if its renewal fails, which costs the
  /// call 5 s at most, and no more than a quarter of the time before its deadline; the next call to
  /// try comes a minute later. Throws CopilotError when there is no credential, GitHub refuses them
  /// all or answers nonsense; http::Retryable, http::Stopped, http::DeadlineExceeded and what
  /// `should_stop` throws.
  [[nodiscard]] http::Headers chat_headers(const CallBounds& bounds = {});

  /// Drops the token that these headers bear: the endpoint has refused it.
  void drop_token(const http::Headers& chat_headers);

  /// The credentials and tokens used last, 16 at most, to be kept out of error texts.
  [[nodiscard]] http::Secrets secrets() const;

 private:
  class Tokens;
  std::unique_ptr<Tokens> _tokens;
};

}  // namespace tovren_mapstead::engines::copilot
