// A transport that reports what passes through it: for progress, metrics, and text on a screen
// while it arrives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// One step of an exchange. Its views are valid during the call only. Holds no header of the
/// request, because those hold credentials.
struct ExchangeEvent {
  /// The steps of an exchange, in their order. `body` comes once for each read; `end` or `failure`
  /// comes last.
  enum class Kind {
    request,  ///< The request is about to be sent.
    head,     ///< The head of the reply has arrived.
    body,     ///< Bytes of the body have arrived: `text`.
    end,      ///< The reply is complete, or its rest is not needed.
    failure   ///< The exchange failed, or was given up: `text` says why.
  };

  Kind kind = Kind::request;        ///< Which step it is.
  std::uint64_t id = 0;             ///< Number of the exchange, from 1; the same in all its events.
  Method method = Method::post;     ///< Of the request.
  std::string_view url{};           ///< Of the request, without user information and query.
  std::size_t request_bytes = 0;    ///< Size of the request's body.
  int status = 0;                   ///< Of the reply; 0 before its head.
  std::string_view content_type{};  ///< Of the reply, as received; empty before its head.
  std::string_view text{};          ///< `body`: its bytes. `failure`: a text without secrets.
  double seconds = 0;               ///< Since the request began.
};

/// Called for each step, on the thread of the call, so it has to be quick; from several threads at
/// once. An exception from it ends the call and reaches the caller unchanged, but one that it
/// throws for `end` or `failure` is dropped.
using ExchangeObserver = std::function<void(const ExchangeEvent&)>;

/// Returns a transport that passes each request on to `transport`, or to the engine's own if that
/// is null, and reports each step to `observer`. Every attempt of a call is an exchange; so is a
/// request for a Copilot token. Thread-safe.
[[nodiscard]] TOVREN_EXPORT std::shared_ptr<Transport> observe(
    ExchangeObserver observer, std::shared_ptr<Transport> transport = nullptr);

}  // namespace tovren_mapstead::engines::http
