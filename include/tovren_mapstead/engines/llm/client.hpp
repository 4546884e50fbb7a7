// The client: built once, used by any number of threads.
#pragma once

#include <chrono>
#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "tovren_mapstead/config.hpp"
#include "tovren_mapstead/engines/http/bounds.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/engines/llm/config.hpp"
#include "tovren_mapstead/engines/llm/errors.hpp"
#include "tovren_mapstead/engines/llm/message.hpp"
#include "tovren_mapstead/engines/llm/result.hpp"
#include "tovren_mapstead/export.hpp"

/// The chat-completions client.
namespace tovren_mapstead::engines::llm {

/// What a client may be given beside its configuration.
struct ClientOptions {
  std::shared_ptr<http::Transport> transport{};  ///< Absent: the engine's own.
  http::Wait wait = http::wait_unless_stopped;   ///< Waits between attempts.
};

/// When a call ends at the latest: a moment of the steady clock, a period from the begin of the
/// call such as `30s`, or never.
class TOVREN_EXPORT CallDeadline {
 public:
  /// The call has no deadline.
  CallDeadline() = default;

  /// @{
  /// The call ends at this moment; without one, never.
  CallDeadline(std::nullopt_t) noexcept {}  // NOLINT(google-explicit-constructor)

  CallDeadline(http::Deadline moment) noexcept : _end(moment) {}  // NOLINT(google-explicit-*)

  CallDeadline(std::optional<http::Deadline> moment) {  // NOLINT(google-explicit-constructor)
    if (moment) _end = *moment;
  }

  /// @}

  /// The call ends this long after it began.
  template <class Count, class Unit>
  CallDeadline(std::chrono::duration<Count, Unit> period)  // NOLINT(google-explicit-constructor)
      : _end(std::chrono::duration<double>(period)) {}

  /// Returns the moment for a call that begins now.
  [[nodiscard]] std::optional<http::Deadline> moment() const noexcept;

 private:
  std::variant<std::monostate, http::Deadline, std::chrono::duration<double>> _end;
};

/// What one call may change or add.
struct ChatOptions {
  std::optional<double> temperature{};  ///< Absent: that of the configuration.
  std::optional<int> max_tokens{};      ///< Absent: that of the configuration.
  bool response_json = false;           ///< Asks for a JSON object as the answer.
  http::StopTest should_stop{};         ///< A function, or a std::stop_token, that ends the call.
  CallDeadline deadline{};              ///< `30s`, or a moment of std::chrono::steady_clock.
};

/// A thin OpenAI-compatible chat-completions client.
/// Immutable and thread-safe; needs no closing. Copies are cheap and share the transport and, for
/// Copilot, the token. A client must not be assigned or destroyed while another thread is in
/// `chat`.
class TOVREN_EXPORT LLMClient {
 public:
  /// Throws std::invalid_argument for a base URL that is not empty and does not start with
  /// "http://" or "https://". Builds a client without URL, model or key as well: see
  /// `is_configured`.
  explicit LLMClient(LLMConfig config, const ClientOptions& options = {});

  /// Does the same with the fields of a configuration: `LLMClient({.base_url = url, .model =
  /// "m"})`.
  explicit LLMClient(LLMConfig::Fields fields, const ClientOptions& options = {});

  /// Returns the configuration. Lives as long as the client and its copies.
  [[nodiscard]] const LLMConfig& config() const noexcept;

  /// Returns the model of the configuration; a reply may name another.
  [[nodiscard]] const std::string& model() const noexcept;

  /// Returns whether the client has what its provider needs: URL, model and key, or for Copilot a
  /// model and a GitHub credential. Sends nothing.
  [[nodiscard]] bool is_configured() const;

  /// Returns what `is_configured` lacks, for a user: "generation.model is empty" and so on; empty
  /// if it lacks nothing. Sends nothing.
  [[nodiscard]] std::string missing_settings() const;

  /// Sends `messages` and returns the answer. Blocks, also during the waits between attempts.
  /// Repeats transient failures up to `max_retries` times, after 1 s, 2 s, 4 s and so on.
  /// Throws LLMStopped if `should_stop` returns true, LLMTimeout at the deadline or as soon as no
  /// attempt can begin before it, and LLMError for any other failure. The engine's error is nested
  /// in them: see `http::status_of` and `http::may_succeed_later`. Stop and deadline take effect
  /// within 50 ms, but through an OpenAI client library only between attempts. Exceptions of
  /// `should_stop` and of the client's `wait` pass unchanged. Throws LLMStopped, too, if another
  /// thread ends the process, which waits up to a second for that.
  [[nodiscard]] LLMResult chat(const Messages& messages, const ChatOptions& options = {}) const;

 private:
  struct Core;
  std::shared_ptr<const Core> _core;
};

/// Returns whether the OpenAI client library (`openai`) can be loaded, in which case plain
/// providers are reached through it. Searches once in the life of the process. Thread-safe.
[[nodiscard]] TOVREN_EXPORT bool _openai_available();

/// Builds a client from the application's configuration and, unless the provider is "copilot", the
/// key in the environment variable TOVREN_LLM_API_KEY. The client may be unconfigured.
/// Throws std::invalid_argument like the constructor. Must not be called while another thread
/// changes the environment.
[[nodiscard]] TOVREN_EXPORT LLMClient build_llm_client_from_config(const Config& config);

/// Does the same with the section alone:
/// `build_llm_client_from_config({.base_url = url, .model = "m"})`. A template, so that `{}` means
/// the function above.
template <class Section = GenerationConfig>
requires std::same_as<Section, GenerationConfig>

[[nodiscard]] LLMClient build_llm_client_from_config(const Section& generation) {
  return build_llm_client_from_config(Config{.generation = generation});
}

}  // namespace tovren_mapstead::engines::llm
