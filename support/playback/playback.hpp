// A transport that plays back replies from memory: for tests and fuzzers that need no socket.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tovren_mapstead/engines/http/transport.hpp"

namespace playback {

namespace http = tovren_mapstead::engines::http;

/// A reply: the pieces of its body arrive one read at a time, then `failure`, if any, ends it.
struct Reply {
  int status = 200;
  std::vector<std::string> pieces{};
  std::string content_type = "application/json";
  std::optional<http::TransportError> failure{};
  std::string location{};
};

/// Plays one reply after the other, the last one for ever, and keeps the requests.
class Playback final : public http::Transport {
 public:
  explicit Playback(std::deque<Reply> replies) : _replies(std::move(replies)) {}

  std::unique_ptr<http::Exchange> open(http::Request request, http::Watch& watch) override {
    watch.check("playing", "back");
    requests.push_back(std::move(request));
    Reply reply = _replies.front();
    if (_replies.size() > 1) _replies.pop_front();
    if (reply.failure && reply.pieces.empty()) throw http::TransportError(*reply.failure);
    return std::make_unique<Played>(std::move(reply), finished);
  }

  std::vector<http::Request> requests;
  int finished = 0;  ///< Exchanges after which a connection could serve again.

 private:
  class Played final : public http::Exchange {
   public:
    Played(Reply reply, int& finished)
        : _head{reply.status, reply.content_type, reply.location},
          _reply(std::move(reply)),
          _finished(finished) {}

    [[nodiscard]] const http::Head& head() const noexcept override { return _head; }

    bool read(std::string& into, http::Watch&) override {
      if (_next < _reply.pieces.size()) {
        into += _reply.pieces[_next++];
        return true;
      }
      if (_reply.failure) throw http::TransportError(*_reply.failure);
      return false;
    }

    void finish() noexcept override { ++_finished; }

   private:
    http::Head _head;
    Reply _reply;
    std::size_t _next = 0;
    int& _finished;
  };

  std::deque<Reply> _replies;
};

/// Carries every request to another host, its path kept, over another transport.
class Detour final : public http::Transport {
 public:
  /// `to`: scheme, host and port.
  explicit Detour(std::string to, std::shared_ptr<http::Transport> over = http::make_transport())
      : _to(std::move(to)), _transport(std::move(over)) {}

  std::unique_ptr<http::Exchange> open(http::Request request, http::Watch& watch) override {
    const std::size_t path = request.url.find('/', request.url.find("://") + 3);
    {
      const std::lock_guard lock(_mutex);
      _meant_for.insert(request.url.substr(0, path));
    }
    request.url = _to + request.url.substr(path);
    return _transport->open(std::move(request), watch);
  }

  /// Scheme, host and port that the requests were meant for.
  [[nodiscard]] std::set<std::string> meant_for() const {
    const std::lock_guard lock(_mutex);
    return _meant_for;
  }

 private:
  std::string _to;
  mutable std::mutex _mutex;
  std::set<std::string> _meant_for;
  std::shared_ptr<http::Transport> _transport;
};

}  // namespace playback
