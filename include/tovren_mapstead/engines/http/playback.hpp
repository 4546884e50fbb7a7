// A transport that plays back replies from memory: for tests without a network.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// A reply to play back.
struct PlaybackReply {
  int status = 200;                               ///< Of the reply.
  std::vector<std::string> pieces{};              ///< The body; each read returns one piece.
  std::string content_type = "application/json";  ///< "text/event-stream" for a stream.
  std::optional<TransportError> failure{};  ///< Thrown after the pieces; without any, at once.
  std::string location{};                   ///< Of a redirect.
};

/// Answers each request with the next reply, without waiting, and keeps the requests. Repeats the
/// last reply. Checks the stop test and the deadline before each reply. Thread-safe.
class TOVREN_EXPORT PlaybackTransport final : public Transport {
 public:
  /// Throws std::invalid_argument if `replies` is empty.
  explicit PlaybackTransport(std::vector<PlaybackReply> replies);

  std::unique_ptr<Exchange> open(Request request, Watch& watch) override;

  /// Returns the requests so far, with their credentials.
  [[nodiscard]] std::vector<Request> requests() const;

  /// Returns how many replies were given back in good order: a connection could be used again.
  [[nodiscard]] int finished() const;

 private:
  class Played;

  mutable std::mutex _mutex;
  std::deque<PlaybackReply> _replies;
  std::vector<Request> _requests;
  int _finished = 0;
};

}  // namespace tovren_mapstead::engines::http
