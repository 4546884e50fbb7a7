// The engine's own transport: pooled connections, driven by the thread of the call.
#include "tovren_mapstead/engines/http/transport.hpp"

#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "engines/http/curl/dial.hpp"
#include "engines/http/curl/pool.hpp"
#include "engines/http/curl/proxies.hpp"
#include "engines/http/curl/route.hpp"
#include "engines/http/curl/transfer.hpp"
#include "engines/http/curl/trust.hpp"
#include "engines/http/process.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// The state that the exchanges of a transport share. Each process has its own.
struct Shared {
  explicit Shared(const std::string& ca_file) : trust(std::make_shared<Trust>(ca_file)) {}

  // Returns an idle connection to the origin of `url`, else a new one.
  std::unique_ptr<Connection> connect(const std::string& url, Watch& watch) {
    if (auto idle = pool.take(origin_of(url), watch)) return idle;
    Route route = route_to(url, proxies);
    TcpConnection tcp = dial(names, route.service, watch);
    return std::make_unique<Connection>(std::move(route), std::move(tcp), trust);
  }

  const std::shared_ptr<Trust> trust;
  const Proxies proxies;
  Names names;
  Pool pool;
};

class PooledExchange final : public Exchange {
 public:
  PooledExchange(std::shared_ptr<Shared> shared, Request request, Watch& watch)
      : _shared(std::move(shared)) {
    for (;;) {
      auto connection = _shared->connect(request.url, watch);
      _transfer = std::make_unique<Transfer>(std::move(connection), std::move(request), watch);
      try {
        await(watch, "waiting for", [&] { return _transfer->head_complete(); });
        return;
      } catch (...) {
        if (_transfer->unsent()) {
          request = _transfer->take_request();
          continue;
        }
        drop_suspects();
        throw;
      }
    }
  }

  PooledExchange(const PooledExchange&) = delete;
  PooledExchange& operator=(const PooledExchange&) = delete;

  ~PooledExchange() override {
    if (_transfer) _shared->pool.put(_transfer->release());
  }

  [[nodiscard]] const Head& head() const noexcept override { return _transfer->head(); }

  bool read(std::string& into, Watch& watch) override {
    struct Unset {
      Transfer& transfer;

      ~Unset() { transfer.set_sink(nullptr); }
    };

    watch.moved();  // time that the caller spent between reads is no silence
    const Unset unset{*_transfer};
    const std::size_t before = into.size();
    _transfer->set_sink(&into);
    return await(watch, "reading from", [&] { return into.size() > before; });
  }

  [[nodiscard]] Secrets secrets() const override {
    const auto& proxy = _transfer->route().proxy;
    return proxy ? proxy->secrets : Secrets();
  }

  void finish() noexcept override {
    try {
      // One non-blocking read catches the common case. A transfer that is still open is completed
      // when its connection is next requested.
      if (_transfer->drain()) {
        _shared->pool.put(_transfer->release());
        _transfer.reset();
      } else {
        _shared->pool.drain_later(std::move(_transfer));
      }
    } catch (const std::exception&) {  // the connection is closed instead
    }
  }

 private:
  // Drives the transfer until `arrived`. Returns false if it ended before that without an error.
  template <class Arrived>
  bool await(Watch& watch, std::string_view doing, Arrived arrived) {
    Transfer& transfer = *_transfer;
    while (!arrived()) {
      // On a busy machine the bounds of the call may have passed before that.
      if (transfer.timed_out()) watch.check(doing, transfer.route().origin);
      transfer.check();
      if (transfer.ended()) return false;
      watch.check(doing, transfer.route().origin);
      if (transfer.has_to_wait()) transfer.poll(watch.patience());
      if (transfer.perform()) watch.moved();
    }
    watch.moved();
    return true;
  }

  // A network that has dropped one idle connection has probably dropped them all. The next attempt
  // must not use another of them.
  void drop_suspects() noexcept {
    if (!_transfer->suspects_connection()) return;
    try {
      throw;
    } catch (const Stopped&) {  // says nothing about the connection
    } catch (...) {
      _shared->pool.drop(_transfer->route().origin);
    }
  }

  std::shared_ptr<Shared> _shared;
  std::unique_ptr<Transfer> _transfer;
};

class PooledTransport final : public Transport {
 public:
  explicit PooledTransport(std::string ca_file) : _ca_file(std::move(ca_file)) {}

  PooledTransport(const PooledTransport&) = delete;
  PooledTransport& operator=(const PooledTransport&) = delete;

  ~PooledTransport() override { _shared.discard(); }

  std::unique_ptr<Exchange> open(Request request, Watch& watch) override {
    return std::make_unique<PooledExchange>(shared(), std::move(request), watch);
  }

  // A forked child makes its own, because the connections belong to its parent.
  std::shared_ptr<Shared> shared() {
    return _shared.get([&] { return std::make_shared<Shared>(_ca_file); });
  }

 private:
  const std::string _ca_file;
  Once<std::shared_ptr<Shared>> _shared;  // shared with exchanges, which may outlive the transport
};

std::string authorities() {
  const char* const variable = std::getenv("SSL_CERT_FILE");  // NOLINT(concurrency-mt-unsafe)
  return variable == nullptr ? "" : variable;
}

// Never destroyed: a call may still use it after the exit handlers have stopped waiting.
Once<PooledTransport> process_transport;

}  // namespace

std::shared_ptr<Transport> make_transport(const TransportOptions& options) {
  auto transport =
      std::make_shared<PooledTransport>(options.ca_file.empty() ? authorities() : options.ca_file);
  transport->shared();  // reads the environment now, not at the first call
  return transport;
}

Transport& default_transport() {
  return process_transport.get([] { return PooledTransport(authorities()); });
}

}  // namespace tovren_mapstead::engines::http
