#include "tovren_mapstead/engines/http/playback.hpp"

#include <cstddef>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace tovren_mapstead::engines::http {

class PlaybackTransport::Played final : public Exchange {
 public:
  Played(PlaybackReply reply, PlaybackTransport& transport)
      : _head{.status = reply.status,
              .content_type = reply.content_type,
              .location = reply.location},
        _reply(std::move(reply)),
        _transport(transport) {}

  [[nodiscard]] const Head& head() const noexcept override { return _head; }

  bool read(std::string& into, Watch& watch) override {
    watch.check("reading from", "a playback");
    if (_next < _reply.pieces.size()) {
      into += _reply.pieces[_next++];
      return true;
    }
    if (_reply.failure) throw TransportError(*_reply.failure);
    return false;
  }

  void finish() noexcept override {
    const std::lock_guard lock(_transport._mutex);
    ++_transport._finished;
  }

 private:
  const Head _head;
  const PlaybackReply _reply;
  std::size_t _next = 0;
  PlaybackTransport& _transport;
};

PlaybackTransport::PlaybackTransport(std::vector<PlaybackReply> replies)
    : _replies(std::make_move_iterator(replies.begin()), std::make_move_iterator(replies.end())) {
  if (_replies.empty()) throw std::invalid_argument("a playback needs a reply");
}

std::unique_ptr<Exchange> PlaybackTransport::open(Request request, Watch& watch) {
  watch.check("waiting for", "a playback");
  const std::lock_guard lock(_mutex);
  _requests.push_back(std::move(request));
  PlaybackReply reply = _replies.front();
  if (_replies.size() > 1) _replies.pop_front();
  if (reply.failure && reply.pieces.empty()) throw TransportError(*reply.failure);
  return std::make_unique<Played>(std::move(reply), *this);
}

std::vector<Request> PlaybackTransport::requests() const {
  const std::lock_guard lock(_mutex);
  return _requests;
}

int PlaybackTransport::finished() const {
  const std::lock_guard lock(_mutex);
  return _finished;
}

}  // namespace tovren_mapstead::engines::http
