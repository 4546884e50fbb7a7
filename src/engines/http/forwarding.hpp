// An exchange that passes everything on to another, for transports around a transport.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "tovren_mapstead/engines/http/transport.hpp"

namespace tovren_mapstead::engines::http {

/// Passes everything on. Derive from it to change a part.
class ForwardingExchange : public Exchange {
 public:
  explicit ForwardingExchange(std::unique_ptr<Exchange> inner) : _inner(std::move(inner)) {}

  [[nodiscard]] const Head& head() const noexcept override { return _inner->head(); }

  bool read(std::string& into, Watch& watch) override { return _inner->read(into, watch); }

  [[nodiscard]] Secrets secrets() const override { return _inner->secrets(); }

  void finish() noexcept override { _inner->finish(); }

 private:
  std::unique_ptr<Exchange> _inner;
};

/// Sends `request` over `transport`, or over the engine's own if that is null. Removes `secrets`
/// from the text of a failure. Throws like `Transport::open`.
[[nodiscard]] std::unique_ptr<Exchange> forward(const std::shared_ptr<Transport>& transport,
                                                Request request, Watch& watch,
                                                const Secrets& secrets);

}  // namespace tovren_mapstead::engines::http
