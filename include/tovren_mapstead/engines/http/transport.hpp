// The interface between the engine and what carries its requests. An application or a test can
// implement it; the engine's own implementation uses libcurl.
#pragma once

#include <memory>
#include <string>

#include "tovren_mapstead/engines/http/bounds.hpp"
#include "tovren_mapstead/engines/http/errors.hpp"
#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// The methods that the engine uses.
enum class Method { get, post };

/// One request. The engine has made sure that URL and headers hold no line break and no NUL.
struct Request {
  Method method = Method::post;  ///< A GET has no body.
  std::string url{};             ///< Absolute; http or https.
  Headers headers{};             ///< All but those that HTTP itself needs.
  std::string body{};            ///< Sent unchanged.
};

/// The head of a reply, as far as the engine uses it.
struct Head {
  int status = 0;              ///< Of the final reply, never an interim 1xx.
  std::string content_type{};  ///< As received; empty if absent.
  std::string location{};      ///< As received; empty if absent.
};

/// A request under way whose head has been received. Destroying it before the end of the body
/// closes the connection.
class TOVREN_EXPORT Exchange {
 public:
  Exchange() = default;
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  virtual ~Exchange() = default;

  /// Returns the head of the final reply. Lives as long as this object.
  [[nodiscard]] virtual const Head& head() const noexcept = 0;

  /// Appends the next bytes of the body to `into`, at least one, or returns false at the end of the
  /// body. Blocks until one of these. Throws what `Watch::check` throws, and TransportError.
  virtual bool read(std::string& into, Watch& watch) = 0;

  /// Returns the credentials that this exchange uses besides those of its request, such as a
  /// proxy's: a peer may echo them.
  [[nodiscard]] virtual Secrets secrets() const { return {}; }

  /// Called when the rest of the body is not needed: a connection that is still good may be used
  /// again. Blocks for a few milliseconds at most.
  virtual void finish() noexcept {}
};

/// Performs HTTP requests. An implementation verifies TLS, follows no redirect, and may be called
/// from any number of threads at once.
class TOVREN_EXPORT Transport {
 public:
  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  /// Sends `request` and waits for the head of the reply. Throws what `Watch::check` throws, and
  /// TransportError.
  virtual std::unique_ptr<Exchange> open(Request request, Watch& watch) = 0;
};

/// Settings of the engine's own transport.
struct TransportOptions {
  /// A PEM file with the certificate authorities to trust. Empty: the file that the variable
  /// SSL_CERT_FILE names, else the system's.
  std::string ca_file{};
};

/// Returns a transport over libcurl with its own pool of connections. It speaks http and https
/// only, keeps connections for reuse, and uses the proxies of the usual environment variables,
/// which it reads when it is made. It must not be used in a child process of the process that made
/// it.
[[nodiscard]] TOVREN_EXPORT std::shared_ptr<Transport> make_transport(
    const TransportOptions& options = {});

/// Returns the transport of every exchange that names none. There is one for the process, made when
/// it is first used and never destroyed; a child process makes its own.
[[nodiscard]] TOVREN_EXPORT Transport& default_transport();

}  // namespace tovren_mapstead::engines::http
