// The seam between the engine and whatever carries its requests. An application or a test can
// implement it; the one behind `default_transport` is libcurl.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/retry.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

class JsonReader;

/// The methods that the engine uses.
enum class Method { get, post };

/// One request. The engine has made sure that neither URL nor headers hold line breaks or NUL.
struct Request {
  Method method = Method::post;  ///< A GET has no body.
  std::string url{};             ///< Absolute; http or https.
  Headers headers{};             ///< All of them but those that HTTP itself needs.
  std::string body{};            ///< Sent as it is.
};

/// The head of a reply, as far as the engine uses it.
struct Head {
  int status = 0;              ///< Of the final reply, never an interim 1xx.
  std::string content_type{};  ///< As sent; empty when absent.
  std::string location{};      ///< As sent; empty when absent.
};

/// What a transport throws when a request fails on the way. The engine makes a Retryable or an
/// HttpFailure of it and removes the secrets from its text.
class TOVREN_EXPORT TransportError : public std::runtime_error {
 public:
  /// `transient`: the same request may get through when sent again. `status`: that of a proxy which
  /// refused to pass the request on; it is sorted like a server's, whatever `transient` is.
  TransportError(const std::string& message, bool transient,
                 std::optional<int> status = std::nullopt)
      : std::runtime_error(detail::without_nul(message)), _transient(transient), _status(status) {}

  /// Whether the same request may get through when sent again.
  [[nodiscard]] bool transient() const noexcept { return _transient; }

  /// The HTTP status with which a proxy refused; absent for any other failure.
  [[nodiscard]] std::optional<int> status() const noexcept { return _status; }

 private:
  bool _transient;
  std::optional<int> _status;
};

/// Nothing moved for longer than the time limit; the engine makes a TimedOut of it.
class TOVREN_EXPORT TransportTimeout : public TransportError {
 public:
  /// `message` says what was waited for.
  explicit TransportTimeout(const std::string& message) : TransportError(message, true) {}
};

/// The bounds of every wait in one exchange. A transport that waits does so for at most `patience`
/// at a time and calls `check` in between, `moved` when bytes have come or gone.
/// Used on the thread of the call only.
class TOVREN_EXPORT Watch {
 public:
  /// `timeout_s`: the longest silence in seconds; 0, NaN or more than the clock can count: any.
  /// `should_stop` is borrowed and must outlive this object.
  Watch(double timeout_s, const StopTest& should_stop, std::optional<Deadline> deadline);

  /// Something moved: the silence starts anew.
  void moved() noexcept;

  /// Lets no later silence last longer than `timeout_s` seconds.
  void shorten(double timeout_s) noexcept;

  /// Throws Stopped, DeadlineExceeded or, after too long a silence, TransportTimeout;
  /// `doing` and `whom` name in their texts what is under way: "waiting for the reply of", and the
  /// host. What the stop test throws passes through.
  void check(std::string_view doing, std::string_view whom) const;

  /// The same without the silence: throws Stopped and DeadlineExceeded only.
  void check_call(std::string_view doing, std::string_view whom) const;

  /// The longest silence in seconds, as given or shortened.
  [[nodiscard]] double timeout_s() const noexcept { return _timeout_s; }

  /// How long to wait at most before the next `check`; never negative.
  [[nodiscard]] std::chrono::milliseconds patience() const noexcept;

 private:
  [[nodiscard]] bool silence_counts() const noexcept;

  double _timeout_s;
  const StopTest& _should_stop;
  std::optional<Deadline> _deadline;
  std::optional<Deadline> _silent_until;
};

/// One request under way, its head received. Destroying it unfinished drops the connection.
class TOVREN_EXPORT Exchange {
 public:
  Exchange() = default;
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  virtual ~Exchange() = default;

  /// Of the final reply. Lives as long as this object.
  [[nodiscard]] virtual const Head& head() const noexcept = 0;

  /// Appends the next bytes of the body to `into`, at least one, or returns false at its end.
  /// Blocks until there is something to say. Throws what `Watch::check` throws, and TransportError.
  virtual bool read(std::string& into, Watch& watch) = 0;

  /// Credentials that this exchange has besides those of its request, such as a proxy's: what may
  /// be echoed and must not be shown.
  [[nodiscard]] virtual Secrets secrets() const { return {}; }

  /// A reader of JSON that is kept for the exchanges after this one, with the memory that it has;
  /// null: there is none.
  virtual JsonReader* reader() noexcept { return nullptr; }

  /// The caller wants no more of the body: a connection that is still good may serve again.
  /// Blocks for no longer than a few milliseconds.
  virtual void finish() noexcept {}
};

/// Performs HTTP requests. An implementation verifies TLS, follows no redirect and may be called
/// from any number of threads at once.
class TOVREN_EXPORT Transport {
 public:
  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  /// Sends `request` and waits for the head of the reply.
  /// Throws what `Watch::check` throws, and TransportError.
  virtual std::unique_ptr<Exchange> open(Request request, Watch& watch) = 0;
};

/// How the engine's own transport is set up.
struct TransportOptions {
  /// File with the certificate authorities to trust, in PEM form. Empty: the file that the variable
  /// SSL_CERT_FILE names, else the system's.
  const std::string ca_file{};
};

/// A transport over libcurl, with a pool of connections of its own. It speaks http and https only,
/// keeps connections alive for reuse and takes proxies from the usual environment variables, which
/// are read when it is made.
[[nodiscard]] TOVREN_EXPORT std::shared_ptr<Transport> make_transport(
    const TransportOptions& options = {});

/// The transport of every exchange that names none: one pool for the process, made when first used
/// and never destroyed. A child process starts with a new one; a transport that was made otherwise
/// is not for the children of its process.
[[nodiscard]] TOVREN_EXPORT Transport& default_transport();

}  // namespace tovren_mapstead::engines::http
