// The client: built once, asked from any number of threads.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tovren_mapstead/config.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/engines/llm/config.hpp"
#include "tovren_mapstead/engines/llm/errors.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::copilot {
class CopilotAuth;
}

namespace tovren_mapstead::engines::llm {

/// One message: its members, usually `role` and `content`, in the order in which they are sent.
using Message = std::vector<std::pair<std::string, std::string>>;
/// The messages of a call, the oldest first.
using Messages = std::vector<Message>;

/// What a client may be given beside its configuration.
struct ClientOptions {
  const std::shared_ptr<http::Transport> transport{};  ///< Absent: the engine's own.
  const http::Wait wait = http::wait_unless_stopped;   ///< Waits between attempts.
};

/// What one call may change or add.
struct ChatOptions {
  const std::optional<double> temperature{};       ///< Absent: the configured one.
  const std::optional<int> max_tokens{};           ///< Absent: the configured limit.
  const bool response_json = false;                ///< Asks for a JSON object as the answer.
  const http::StopTest should_stop{};              ///< True ends the call.
  const std::optional<http::Deadline> deadline{};  ///< The moment by which the call ends.
};

/// A thin OpenAI-compatible chat-completions client.
/// Immutable and usable from any number of threads at once through a const reference; needs no
/// closing. Copies share the transport and, for Copilot, the token.
/// It has to outlive every call on it: to destroy it while another thread is inside `chat` is the
/// caller's fault.
class TOVREN_EXPORT LLMClient {
 public:
  /// Throws std::invalid_argument for a base URL that is not empty and does not start with
  /// "http://" or "https://". A client without URL, model or key is built all the same:
  /// see `is_configured`.
  explicit LLMClient(LLMConfig config, const ClientOptions& options = {});

  /// As it was given. Lives as long as the client.
  [[nodiscard]] const LLMConfig& config() const noexcept { return _config; }

  /// The model of the configuration; a reply may name another.
  [[nodiscard]] const std::string& model() const noexcept { return _config.model; }

  /// Whether the client has what its provider needs: URL, model and key, or for Copilot a model and
  /// a GitHub credential. Sends nothing.
  [[nodiscard]] bool is_configured() const;

  /// Sends `messages` and returns the answer. Blocks, waits between attempts included.
  /// Repeats transient failures up to `max_retries` times, after 1 s, 2 s, 4 s and so on.
  /// Throws LLMStopped when `should_stop` says true, LLMTimeout at the deadline or as soon as no
  /// attempt can begin before it, and LLMError for every other failure. Both take effect within
  /// 50 ms in every wait, through an OpenAI client library only between attempts. What
  /// `should_stop` and the client's `wait` throw passes unchanged. Throws LLMStopped, too, when the
  /// process exits meanwhile in another thread, which waits a second at most for that.
  [[nodiscard]] LLMResult chat(const Messages& messages, const ChatOptions& options = {}) const;

 private:
  struct Prompt;

  LLMResult _chat_via_urllib(const Prompt& prompt, double timeout_s,
                             const http::RetryPolicy& policy) const;
  LLMResult _chat_via_copilot(const Prompt& prompt, double timeout_s,
                              const http::RetryPolicy& policy) const;
  LLMResult _chat_via_sdk(const Prompt& prompt, double timeout_s,
                          std::optional<bool> stream = std::nullopt) const;
  LLMResult _chat_http(const std::string& url, const http::Headers& headers, const Prompt& prompt,
                       double timeout_s, const http::RetryPolicy& policy,
                       std::optional<bool> stream = std::nullopt) const;

  const LLMConfig _config;
  const std::shared_ptr<http::Transport> _transport;
  const http::Secrets _secrets;
  const http::RetryPolicy _policy;
  const std::shared_ptr<copilot::CopilotAuth> _copilot_auth;  // Copilot clients have one
};

/// Whether the OpenAI client library (`openai`) can be loaded, in which case plain providers are
/// reached through it. Looked for once in the life of the process. Safe from any thread.
[[nodiscard]] TOVREN_EXPORT bool _openai_available();

/// Builds a client from the application's configuration and, unless the provider is "copilot", the
/// key in the environment variable TOVREN_LLM_API_KEY. The client may be unconfigured.
/// Throws std::invalid_argument like the constructor. Reads the environment, so not to be called
/// while another thread changes it.
[[nodiscard]] TOVREN_EXPORT LLMClient build_llm_client_from_config(const Config& config);

}  // namespace tovren_mapstead::engines::llm
