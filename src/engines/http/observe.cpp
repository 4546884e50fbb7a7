#include "tovren_mapstead/engines/http/observe.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <iterator>
#include <string>
#include <utility>

#include "engines/http/forwarding.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Returns `url` without user information and query, which can hold credentials.
std::string shown(std::string_view url) {
  std::string text(url.substr(0, url.find_first_of("?#")));
  const std::size_t authority = text.find("://");
  const std::size_t begin = authority == std::string::npos ? 0 : authority + 3;
  const std::size_t at = text.substr(0, text.find('/', begin)).rfind('@');
  if (at != std::string::npos && at >= begin) text.erase(begin, at + 1 - begin);
  return text;
}

// Reports the steps of one exchange. The last one is reported once.
class Report {
 public:
  Report(const ExchangeObserver& observer, std::uint64_t id, const Request& request)
      : _observer(observer), _url(shown(request.url)), _secrets(secrets_of(request.headers)) {
    _event.id = id;
    _event.method = request.method;
    _event.request_bytes = request.body.size();
  }

  [[nodiscard]] const Secrets& secrets() const noexcept { return _secrets; }

  void request() { send(ExchangeEvent::Kind::request, {}); }

  void head(const Exchange& exchange) {
    std::ranges::copy(exchange.secrets(), std::back_inserter(_secrets));
    _event.status = exchange.head().status;
    _content_type = exchange.head().content_type;
    send(ExchangeEvent::Kind::head, {});
  }

  void body(std::string_view bytes) { send(ExchangeEvent::Kind::body, bytes); }

  void end() noexcept { finish(ExchangeEvent::Kind::end, nullptr); }

  void failure(const char* text) noexcept { finish(ExchangeEvent::Kind::failure, text); }

  // Runs a step of the exchange and reports its failure.
  template <class Step>
  auto guarded(Step step) {
    try {
      return step();
    } catch (const std::exception& error) {
      failure(error.what());
      throw;
    } catch (...) {
      failure("an error of an unknown kind");
      throw;
    }
  }

 private:
  void send(ExchangeEvent::Kind kind, std::string_view text) {
    ExchangeEvent event = _event;
    event.kind = kind;
    event.url = _url;
    event.content_type = _content_type;
    event.text = text;
    event.seconds = std::chrono::duration<double>(Clock::now() - _begun).count();
    _observer(event);
  }

  void finish(ExchangeEvent::Kind kind, const char* text) noexcept {
    if (std::exchange(_finished, true)) return;
    try {
      send(kind, text == nullptr ? std::string() : redact(text, _secrets));
    } catch (...) {  // the call ends already
    }
  }

  const ExchangeObserver& _observer;
  const Clock::time_point _begun = Clock::now();
  const std::string _url;
  std::string _content_type;
  Secrets _secrets;
  ExchangeEvent _event;
  bool _finished = false;
};

class ObservedExchange final : public ForwardingExchange {
 public:
  ObservedExchange(std::unique_ptr<Exchange> inner, std::shared_ptr<const ExchangeObserver> owner,
                   std::unique_ptr<Report> report)
      : ForwardingExchange(std::move(inner)),
        _owner(std::move(owner)),
        _report(std::move(report)) {}

  ObservedExchange(const ObservedExchange&) = delete;
  ObservedExchange& operator=(const ObservedExchange&) = delete;

  ~ObservedExchange() override { _report->failure("given up before the end of the reply"); }

  bool read(std::string& into, Watch& watch) override {
    return _report->guarded([&] {
      const std::size_t before = into.size();
      const bool more = ForwardingExchange::read(into, watch);
      if (more) {
        _report->body(std::string_view(into).substr(before));
      } else {
        _report->end();
      }
      return more;
    });
  }

  void finish() noexcept override {
    ForwardingExchange::finish();
    _report->end();
  }

 private:
  std::shared_ptr<const ExchangeObserver> _owner;  // the exchange may outlive the transport
  std::unique_ptr<Report> _report;
};

class ObservedTransport final : public Transport {
 public:
  ObservedTransport(ExchangeObserver observer, std::shared_ptr<Transport> transport)
      : _observer(std::make_shared<const ExchangeObserver>(std::move(observer))),
        _transport(std::move(transport)) {}

  std::unique_ptr<Exchange> open(Request request, Watch& watch) override {
    auto report = std::make_unique<Report>(*_observer, ++_exchanges, request);
    return report->guarded([&]() -> std::unique_ptr<Exchange> {
      report->request();
      auto exchange = forward(_transport, std::move(request), watch, report->secrets());
      report->head(*exchange);
      return std::make_unique<ObservedExchange>(std::move(exchange), _observer, std::move(report));
    });
  }

 private:
  const std::shared_ptr<const ExchangeObserver> _observer;
  const std::shared_ptr<Transport> _transport;
  std::atomic<std::uint64_t> _exchanges = 0;
};

}  // namespace

std::shared_ptr<Transport> observe(ExchangeObserver observer,
                                   std::shared_ptr<Transport> transport) {
  return std::make_shared<ObservedTransport>(std::move(observer), std::move(transport));
}

}  // namespace tovren_mapstead::engines::http
