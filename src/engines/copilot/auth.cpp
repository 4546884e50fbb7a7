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

// The call that made an exchange was stopped or ran out of time; it says nothing of the next one.
struct GivenUp {};

using Result = std::variant<GivenUp, TokenPtr, CopilotError, http::Retryable>;

// An exchange on the thread of one call, for those that wait for its result.
struct Exchange {
  const Credentials credentials;
  std::optional<Result> result{};  // absent: it is under way
};

// What the threads of one process share. All but the generation is guarded by the mutex.
struct State {
  // Keeps the few strings used last out of error texts: a token that other calls still bear is a
  // secret when the next has come.
  void remember(const std::string& secret) {
    constexpr std::size_t MOST = 16;
    std::erase(secrets, secret);
    if (secrets.size() == MOST) secrets.erase(secrets.begin());
    secrets.push_back(secret);
  }

  const unsigned generation = http::fork_generation();
  std::mutex mutex;
  std::condition_variable changed;
  TokenPtr token;                      // the newest; null: none, or it was refused
  std::shared_ptr<Exchange> exchange;  // under way; null: none is
  http::Secrets secrets;
};

// Publishes the result of an exchange, whatever it is.
struct Publication {
  State& state;
  Exchange& exchange;
  Result result{};

  ~Publication() {
    const std::lock_guard lock(state.mutex);
    if (const auto* const token = std::get_if<TokenPtr>(&result)) state.token = *token;
    exchange.result = std::move(result);
    state.exchange.reset();
    state.changed.notify_all();
  }
};

// The bounds of a renewal that the call can do without.
CallBounds hurried(const CallBounds& bounds) {
  constexpr std::chrono::seconds MOST{5};
  const auto now = http::Clock::now();
  const auto end =
      bounds.deadline ? std::min(now + MOST, now + (*bounds.deadline - now) / 4) : now + MOST;
  return {.timeout_s = bounds.timeout_s, .should_stop = bounds.should_stop, .deadline = end};
}

}  // namespace

/// The token at hand and the exchange for the next one.
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
      if (const Token* const token = good_token(shared, credentials)) {
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
  // The state of this process. A child makes its own without a lock and leaves its parent's alone
  // for good: that may be locked, waited on and half changed by threads that do not exist here, and
  // to destroy it could wait for them.
  [[nodiscard]] State& state() const {
    State* known = _state.load();
    if (known->generation == http::fork_generation()) return *known;
    auto fresh = std::make_unique<State>();
    if (_state.compare_exchange_strong(known, fresh.get())) return *fresh.release();
    return *known;  // another thread was faster
  }

  [[nodiscard]] const Token* good_token(const State& shared, const Credentials& credentials) const {
    const Token* const token = shared.token.get();
    const bool good = token != nullptr && token->belongs_to(credentials) &&
                      token->good(_options.unix_time_s(), http::Clock::now());
    return good ? token : nullptr;
  }

  // Makes an exchange that the call can do without: the token at hand is good. Returns nothing if
  // it fails; the token may have been refused meanwhile.
  std::optional<std::string> renew_early(State& shared, const Credentials& credentials,
                                         const CallBounds& bounds,
                                         std::unique_lock<std::mutex>& lock) const {
    shared.token->put_renewal_off(_options.unix_time_s(), http::Clock::now());
    try {
      return fetch(shared, credentials, hurried(bounds), lock);
    } catch (const CopilotError&) {
    } catch (const http::Retryable&) {
    } catch (const http::DeadlineExceeded&) {
      if (bounds.deadline && http::Clock::now() >= *bounds.deadline) throw;
    }
    lock.lock();
    return std::nullopt;
  }

  // Waits for the exchange under way. Returns nothing if it is no use to this call: another
  // account's or given up, or the token was refused since.
  [[nodiscard]] std::optional<std::string> share_result(State& shared,
                                                        const Credentials& credentials,
                                                        const CallBounds& bounds,
                                                        std::unique_lock<std::mutex>& lock) const {
    const std::shared_ptr<const Exchange> exchange = shared.exchange;
    wait_for(*exchange, shared, bounds, lock);
    if (exchange->credentials != credentials) return std::nullopt;
    const Result& result = *exchange->result;
    if (const auto* const error = std::get_if<CopilotError>(&result)) throw *error;
    if (const auto* const error = std::get_if<http::Retryable>(&result)) throw *error;
    if (std::holds_alternative<GivenUp>(result)) return std::nullopt;
    // Not that of the exchange: a chat endpoint may have refused it since.
    const Token* const newest = shared.token.get();
    if (newest == nullptr || !newest->belongs_to(credentials)) return std::nullopt;
    // However near its end: each round of waiting asks for one exchange only.
    if (newest->expires_at_s <= _options.unix_time_s()) return std::nullopt;
    return newest->text;
  }

  // Makes an exchange on this thread, without the lock, and publishes how it went.
  std::string fetch(State& shared, const Credentials& credentials, const CallBounds& bounds,
                    std::unique_lock<std::mutex>& lock) const {
    const http::Secrets secrets = shared.secrets;
    const auto exchange = std::make_shared<Exchange>(Exchange{.credentials = credentials});
    shared.exchange = exchange;  // until it is published nothing throws
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

  static void wait_for(const Exchange& exchange, State& shared, const CallBounds& bounds,
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
