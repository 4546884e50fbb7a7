// The events of a stream (the event-stream format): read from a reply, or decoded from bytes that
// are seen elsewhere.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/response.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Reads the events of `reply`: its `data:` lines that hold a JSON object. Any other line is
/// skipped. For one thread at a time.
class TOVREN_EXPORT EventReader {
 public:
  /// `reply` must outlive this object.
  explicit EventReader(Response& reply) : _reply(reply), _json(reply.reader()) {}

  /// Returns the next event; absent at the end marker "[DONE]" or the end of the body. Valid until
  /// the next call. Throws HttpFailure for a line that is not UTF-8, and what `Response::next_line`
  /// throws.
  JsonValue next();

  /// Returns the payload of the next `data:` line, for a reader that need not parse each; nothing
  /// at the end marker or the end of the body. Valid until the next call. Throws like `next`.
  std::optional<std::string_view> next_payload();

  /// Returns the event with this payload; absent if it is not a JSON object. Valid until the next
  /// call. Throws HttpFailure if it is not UTF-8.
  JsonValue parse(std::string_view payload);

 private:
  Response& _reply;
  JsonReader& _json;
};

/// Decodes the same events from bytes that are fed to it as they come, for an observer of a
/// transport (observe.hpp):
///
///     decoder.feed(bytes);
///     for (JsonValue event = decoder.next(); event.present(); event = decoder.next()) ...
///
/// For one thread at a time.
class TOVREN_EXPORT EventDecoder {
 public:
  EventDecoder();
  /// Moves what was fed. Afterwards, the other can only be assigned or destroyed.
  EventDecoder(EventDecoder&&) noexcept;
  /// Does the same, and forgets what this one was fed.
  EventDecoder& operator=(EventDecoder&&) noexcept;
  ~EventDecoder();

  /// Appends bytes of the body. Invalidates the event before. After the end marker, or a line of
  /// more than 16 MiB, bytes are ignored.
  void feed(std::string_view bytes);

  /// Returns the next complete event; absent if more bytes are needed. Valid until the next call of
  /// `next` or `feed`. Skips lines that are not UTF-8.
  JsonValue next();

 private:
  struct State;
  std::unique_ptr<State> _state;
};

}  // namespace tovren_mapstead::engines::http
