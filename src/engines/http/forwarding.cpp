#include "engines/http/forwarding.hpp"

#include "tovren_mapstead/engines/http/errors.hpp"

namespace tovren_mapstead::engines::http {

std::unique_ptr<Exchange> forward(const std::shared_ptr<Transport>& transport, Request request,
                                  Watch& watch, const Secrets& secrets) {
  try {
    Transport& next = transport ? *transport : default_transport();
    auto exchange = next.open(std::move(request), watch);
    if (!exchange) throw TransportError("the transport gave no exchange", false);
    return exchange;
  } catch (const TransportError& error) {
    throw TransportError(redact(error.what(), secrets), error.transient(), error.status());
  } catch (Error& error) {
    error.redact(secrets);
    throw;
  }
}

}  // namespace tovren_mapstead::engines::http
