// The engine's own transport: libcurl connections out of a pool, driven on the caller's thread.
#include <atomic>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include <pthread.h>

#include "tovren_mapstead/engines/http/transport.hpp"

#include "engines/http/connection.hpp"
#include "engines/http/pool.hpp"

namespace tovren_mapstead::engines::http {
namespace {

class PooledExchange final : public Exchange {
 public:
  PooledExchange(std::shared_ptr<Pool> pool, Request request, Watch& watch)
      : _pool(std::move(pool)) {
    const std::string origin = origin_of(request.url);
    _connection = _pool->take(origin, watch);
    _connection->start(std::move(request), origin);
    await(watch, "waiting for the reply of", [&] { return _connection->head_complete(); });
  }

  PooledExchange(const PooledExchange&) = delete;
  PooledExchange& operator=(const PooledExchange&) = delete;

  ~PooledExchange() override {
    if (_connection && _connection->in_good_order()) _pool->put(std::move(_connection));
  }

  [[nodiscard]] const Head& head() const noexcept override { return _connection->head(); }

  bool read(std::string& into, Watch& watch) override {
    struct Pouring {
      Connection& connection;

      ~Pouring() { connection.pour_into(nullptr); }
    };

    watch.moved();  // what the caller did since the last read is no silence of the peer's
    const Pouring pouring{*_connection};
    const std::size_t before = into.size();
    _connection->pour_into(&into);
    return await(watch, "reading the reply of", [&] { return into.size() > before; });
  }

  JsonReader* reader() noexcept override { return &_connection->reader(); }

  void finish() noexcept override {
    try {
      // One look that does not wait catches the common case. A connection whose reply still has no
      // end is put away like that and looked at again when it is next wanted.
      if (_connection->drain() || _connection->under_way()) _pool->put(std::move(_connection));
    } catch (const std::exception&) {  // the connection is closed instead
    }
  }

 private:
  // Drives the transfer until `arrived`; false if it ended before that, in good order.
  template <class Arrived>
  bool await(Watch& watch, std::string_view doing, Arrived arrived) {
    Connection& connection = *_connection;
    while (!arrived()) {
      connection.check();
      if (!connection.under_way()) return false;
      watch.check(doing, connection.origin());
      if (connection.has_to_wait() && connection.poll(watch.patience())) watch.moved();
      connection.perform();
    }
    watch.moved();
    return true;
  }

  std::shared_ptr<Pool> _pool;
  std::unique_ptr<Connection> _connection;
};

class PooledTransport final : public Transport {
 public:
  explicit PooledTransport(std::string ca_file)
      : _pool(std::make_shared<Pool>(std::move(ca_file))) {}

  std::unique_ptr<Exchange> open(Request request, Watch& watch) override {
    return std::make_unique<PooledExchange>(_pool, std::move(request), watch);
  }

 private:
  std::shared_ptr<Pool> _pool;  // shared with the exchanges, which may outlive the transport
};

std::string authorities() {
  const char* const variable = std::getenv("SSL_CERT_FILE");  // NOLINT(concurrency-mt-unsafe)
  return variable == nullptr ? "" : variable;
}

// Never destroyed: a call that outlasts the patience of an exit still uses it.
std::atomic<Transport*> process_transport = nullptr;

}  // namespace

std::shared_ptr<Transport> make_transport(const TransportOptions& options) {
  return std::make_shared<PooledTransport>(options.ca_file.empty() ? authorities()
                                                                   : options.ca_file);
}

Transport& default_transport() {
  // A child starts anew. The connections are its parent's, and so are locks held while it forked.
  [[maybe_unused]] static const int watched =
      pthread_atfork(nullptr, nullptr, [] { process_transport = nullptr; });
  Transport* transport = process_transport;
  if (transport == nullptr) {
    auto fresh = std::make_unique<PooledTransport>(authorities());
    if (process_transport.compare_exchange_strong(transport, fresh.get())) {
      transport = fresh.release();
    }
  }
  return *transport;
}

}  // namespace tovren_mapstead::engines::http
