#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/http/errors.hpp"

#include "engines/copilot/credential.hpp"
#include "engines/copilot/exchange.hpp"
#include "engines/http/process.hpp"

namespace tovren_mapstead::engines::copilot {
namespace {

double system_time_s() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

using TokenPtr = std::shared_ptr<Token>;

// The call that made the exchange was stopped or ran out of time. Another call may try again.
struct Abandoned {};

using Result = std::variant<Abandoned, TokenPtr, CopilotError, http::Retryable>;

// An exchange on the thread of one call, whose result other calls wait for.
struct TokenExchange {
  const Credentials credentials;
  std::optional<Result> result{};  // absent while pending
};

// The state that the threads of one process share. The mutex guards all but the generation.
struct State {
  // Redacts the last few secrets from error texts. Other calls may still use a token after it was
  // replaced.
  void remember(const std::string& secret) {
    constexpr std::size_t MAX = 16;
    std::erase(secrets, secret);
    if (secrets.size() == MAX) secrets.erase(secrets.begin());
    secrets.push_back(secret);
  }

  const unsigned generation = http::fork_generation();
  std::mutex mutex;
  std::condition_variable changed;
  TokenPtr token;                           // the newest; null if there is none or it was refused
  std::shared_ptr<TokenExchange> exchange;  // the pending one, or null
  http::Secrets secrets;
};

// Publishes the result of an exchange at the end of its scope.
struct Publication {
  State& state;
  TokenExchange& exchange;
  Result result{};

  ~Publication() {
    const std::lock_guard lock(state.mutex);
    if (const auto* const token = std::get_if<TokenPtr>(&result)) state.token = *token;
    exchange.result = std::move(result);
    state.exchange.reset();
    state.changed.notify_all();
  }
};

// Returns the bounds of a renewal that the call does not depend on.
CallBounds renewal_bounds(const CallBounds& bounds) {
  constexpr std::chrono::seconds MAX{5};
  const auto now = http::Clock::now();
  const auto end =
      bounds.deadline ? std::min(now + MAX, now + (*bounds.deadline - now) / 4) : now + MAX;
  return {.timeout_s = bounds.timeout_s, .should_stop = bounds.should_stop, .deadline = end};
}

}  // namespace

/// The current token and the exchange for the next one.
class CopilotAuth::Tokens {
 public:
  explicit Tokens(const AuthOptions& options)
      : _options{.transport = options.transport,
                 .unix_time_s = options.unix_time_s ? options.unix_time_s : system_time_s} {}

  Tokens(const Tokens&) = delete;
  Tokens& operator=(const Tokens&) = delete;

  ~Tokens() {
    State* const last = _state.load();
    if (last->generation == http::fork_generation()) const std::unique_ptr<State> owner(last);
  }

  [[nodiscard]] Credentials credentials() const { return _sources.find(); }

  std::string get(const CallBounds& bounds) {
    const Credentials credentials = _sources.find();
    if (credentials.empty()) throw CopilotError(NO_CREDENTIAL);
    State& shared = state();
    std::unique_lock lock(shared.mutex);
    for (const std::string& credential : credentials) shared.remember(credential);
    for (;;) {
      if (const Token* const token = valid_token(shared, credentials)) {
        if (shared.exchange || !token->due(http::Clock::now())) return token->text;
        if (const auto text = renew_early(shared, credentials, bounds, lock)) return *text;
      } else if (!shared.exchange) {
        return fetch(shared, credentials, bounds, lock);
      } else if (const auto text = share_result(shared, credentials, bounds, lock)) {
        return *text;
      }
    }
  }

  void drop(const std::string& text) {
    State& shared = state();
    const std::lock_guard lock(shared.mutex);
    if (shared.token && shared.token->text == text) shared.token.reset();
  }

  [[nodiscard]] http::Secrets secrets() const {
    State& shared = state();
    const std::lock_guard lock(shared.mutex);
    return shared.secrets;
  }

 private:
  // Returns the state of this process. A forked child makes its own without a lock, and never
  // touches or destroys its parent's, which may be locked, waited on or half changed by threads
  // that do not exist here.
  [[nodiscard]] State& state() const {
    State* known = _state.load();
    if (known->generation == http::fork_generation()) return *known;
    auto fresh = std::make_unique<State>();
    if (_state.compare_exchange_strong(known, fresh.get())) return *fresh.release();
    return *known;  // made by another thread
  }

  [[nodiscard]] const Token* valid_token(const State& shared,
                                         const Credentials& credentials) const {
    const Token* const token = shared.token.get();
    const bool valid = token != nullptr && token->belongs_to(credentials) &&
                       token->valid(_options.unix_time_s(), http::Clock::now());
    return valid ? token : nullptr;
  }

  // Makes an exchange although the current token is valid. Returns nothing if it fails; the token
  // may have been refused meanwhile.
  std::optional<std::string> renew_early(State& shared, const Credentials& credentials,
                                         const CallBounds& bounds,
                                         std::unique_lock<std::mutex>& lock) const {
    shared.token->postpone_renewal(_options.unix_time_s(), http::Clock::now());
    try {
      return fetch(shared, credentials, renewal_bounds(bounds), lock);
    } catch (const CopilotError&) {
    } catch (const http::Retryable&) {
    } catch (const http::DeadlineExceeded&) {
      if (bounds.deadline && http::Clock::now() >= *bounds.deadline) throw;
    }
    lock.lock();
    return std::nullopt;
  }

  // Waits for the pending exchange. Returns nothing if this call cannot use its result: it is for
  // other credentials, was abandoned, or its token was refused since.
  [[nodiscard]] std::optional<std::string> share_result(State& shared,
                                                        const Credentials& credentials,
                                                        const CallBounds& bounds,
                                                        std::unique_lock<std::mutex>& lock) const {
    const std::shared_ptr<const TokenExchange> exchange = shared.exchange;
    wait_for(*exchange, shared, bounds, lock);
    if (exchange->credentials != credentials) return std::nullopt;
    const Result& result = *exchange->result;
    if (const auto* const error = std::get_if<CopilotError>(&result)) throw *error;
    if (const auto* const error = std::get_if<http::Retryable>(&result)) throw *error;
    if (std::holds_alternative<Abandoned>(result)) return std::nullopt;
    // Not the token of the exchange, which the chat endpoint may have refused since.
    const Token* const newest = shared.token.get();
    if (newest == nullptr || !newest->belongs_to(credentials)) return std::nullopt;
    // A token near its end will do, or each waiting call would make an exchange of its own.
    if (newest->expires_at_s <= _options.unix_time_s()) return std::nullopt;
    return newest->text;
  }

  // Makes an exchange on this thread, without the lock, and publishes its result.
  std::string fetch(State& shared, const Credentials& credentials, const CallBounds& bounds,
                    std::unique_lock<std::mutex>& lock) const {
    const http::Secrets secrets = shared.secrets;
    const auto exchange =
        std::make_shared<TokenExchange>(TokenExchange{.credentials = credentials});
    shared.exchange = exchange;  // nothing throws before `publication` exists
    lock.unlock();
    Publication publication{.state = shared, .exchange = *exchange};
    try {
      const auto token =
          std::make_shared<Token>(fetch_token(credentials, _options, bounds, secrets));
      {
        const std::lock_guard held(shared.mutex);
        shared.remember(token->text);
      }
      publication.result = token;
      return token->text;
    } catch (const CopilotError& error) {
      publication.result = error;
      throw;
    } catch (const http::Retryable& error) {
      publication.result = error;
      throw;
    }
  }

  static void wait_for(const TokenExchange& exchange, State& shared, const CallBounds& bounds,
                       std::unique_lock<std::mutex>& lock) {
    const http::Watch watch(0, bounds.should_stop, bounds.deadline);
    while (!exchange.result) {
      lock.unlock();
      watch.check("waiting for", "a Copilot token");
      lock.lock();
      if (!exchange.result) shared.changed.wait_for(lock, watch.patience());
    }
  }

  const AuthOptions _options;
  const CredentialSources _sources;
  mutable std::atomic<State*> _state = std::make_unique<State>().release();
};

CopilotAuth::CopilotAuth(const AuthOptions& options) : _tokens(std::make_unique<Tokens>(options)) {}

CopilotAuth::~CopilotAuth() = default;

bool CopilotAuth::is_available() const {
  return !_tokens->credentials().empty();
}

http::Headers CopilotAuth::chat_headers(const CallBounds& bounds) {
  return headers_with(_tokens->get(bounds));
}

void CopilotAuth::drop_token(const http::Headers& chat_headers) {
  for (const std::string& secret : http::secrets_of(chat_headers)) _tokens->drop(secret);
}

http::Secrets CopilotAuth::secrets() const {
  return _tokens->secrets();
}

}  // namespace tovren_mapstead::engines::copilot
