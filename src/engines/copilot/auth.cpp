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

namespace tovren_mapstead::engines::copilot {
namespace {

double system_time_s() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

using TokenPtr = std::shared_ptr<const Token>;

// An exchange under way, and how it ended for those who wait for it.
struct Flight {
  // Nobody's yet, of its maker alone (who was stopped, or ran out of time), or everybody's.
  using Outcome = std::variant<std::monostate, TokenPtr, CopilotError, http::Retryable>;

  std::string credential;
  bool landed = false;
  Outcome outcome;
};

}  // namespace

/// The token at hand and the exchange for the next one.
class CopilotAuth::Tokens {
 public:
  explicit Tokens(const AuthOptions& options)
      : _options{.transport = options.transport,
                 .unix_time_s = options.unix_time_s ? options.unix_time_s : system_time_s} {}

  std::string get(const CallBounds& bounds) {
    const auto credential = find_credential();
    if (!credential) throw CopilotError(NO_CREDENTIAL);
    std::unique_lock lock(_mutex);
    for (;;) {
      if (_token && _token->credential == *credential &&
          _token->fresh(_options.unix_time_s(), http::Clock::now())) {
        return _token->text;
      }
      if (!_flight) return fly(*credential, bounds, lock);
      const std::shared_ptr<Flight> flight = _flight;
      wait_for(*flight, bounds, lock);
      if (flight->credential != *credential) continue;
      if (const auto* const token = std::get_if<TokenPtr>(&flight->outcome)) {
        // However near its end: each round of waiting asks for one exchange only.
        if ((*token)->expires_at_s > _options.unix_time_s()) return (*token)->text;
      }
      if (const auto* const error = std::get_if<CopilotError>(&flight->outcome)) throw *error;
      if (const auto* const error = std::get_if<http::Retryable>(&flight->outcome)) throw *error;
      // Whoever made the exchange gave up; it is somebody else's turn.
    }
  }

  void drop(const std::string& text) {
    const std::lock_guard lock(_mutex);
    if (_token && _token->text == text) _token.reset();
  }

  [[nodiscard]] http::Secrets secrets() const {
    const std::lock_guard lock(_mutex);
    return _secrets;
  }

 private:
  // Makes the exchange on this thread, without the lock, and tells the others how it went.
  std::string fly(const std::string& credential, const CallBounds& bounds,
                  std::unique_lock<std::mutex>& lock) {
    remember(credential);
    const http::Secrets secrets = _secrets;
    const auto flight = std::make_shared<Flight>();
    flight->credential = credential;
    Flight::Outcome outcome;
    _flight = flight;  // from here to the landing nothing throws
    lock.unlock();
    const Landing landing{*this, *flight, outcome};
    try {
      const auto token =
          std::make_shared<const Token>(exchange(credential, _options, bounds, secrets));
      {
        const std::lock_guard held(_mutex);
        remember(token->text);
      }
      outcome = token;
      return token->text;
    } catch (const CopilotError& error) {
      outcome = error;
      throw;
    } catch (const http::Retryable& error) {
      outcome = error;
      throw;
    }
  }

  // Ends a flight whatever becomes of it.
  struct Landing {
    Tokens& tokens;
    Flight& flight;
    Flight::Outcome& outcome;

    ~Landing() {
      const std::lock_guard lock(tokens._mutex);
      if (const auto* const token = std::get_if<TokenPtr>(&outcome)) tokens._token = *token;
      flight.outcome = std::move(outcome);
      flight.landed = true;
      tokens._flight.reset();
      tokens._changed.notify_all();
    }
  };

  void wait_for(const Flight& flight, const CallBounds& bounds,
                std::unique_lock<std::mutex>& lock) {
    const http::Watch watch(0, bounds.should_stop, bounds.deadline);
    while (!flight.landed) {
      lock.unlock();
      watch.check("waiting for", "a Copilot token");
      lock.lock();
      if (!flight.landed) _changed.wait_for(lock, watch.patience());
    }
  }

  // Keeps the few strings used last out of error texts: a token that other calls still bear is a
  // secret when the next has come.
  void remember(const std::string& secret) {
    constexpr std::size_t MOST = 8;
    std::erase(_secrets, secret);
    if (_secrets.size() == MOST) _secrets.erase(_secrets.begin());
    _secrets.push_back(secret);
  }

  const AuthOptions _options;
  mutable std::mutex _mutex;
  std::condition_variable _changed;
  TokenPtr _token;
  std::shared_ptr<Flight> _flight;
  http::Secrets _secrets;
};

CopilotAuth::CopilotAuth(const AuthOptions& options) : _tokens(std::make_unique<Tokens>(options)) {}

CopilotAuth::~CopilotAuth() = default;

// A member, since which credential there is may come to depend on the options.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
bool CopilotAuth::is_available() const {
  return find_credential().has_value();
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
