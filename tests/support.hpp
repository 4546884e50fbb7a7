// What several tests need: a transport that plays back replies from memory, and short ways to call.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/http/send.hpp"

namespace support {

namespace http = tovren_mapstead::engines::http;
using Json = nlohmann::ordered_json;
using namespace std::chrono_literals;

/// A reply from memory: the pieces of its body arrive one read at a time, then `failure`, if any.
struct Reply {
  int status = 200;
  std::vector<std::string> pieces{};
  std::string content_type = "application/json";
  std::optional<http::TransportError> failure{};
};

class Playback final : public http::Transport {
 public:
  explicit Playback(std::deque<Reply> replies) : _replies(std::move(replies)) {}

  std::unique_ptr<http::Exchange> open(http::Request request, http::Watch& watch) override {
    watch.check("playing", "back");
    requests.push_back(std::move(request));
    Reply reply = _replies.front();
    if (_replies.size() > 1) _replies.pop_front();  // the last one is played for ever
    if (reply.failure && reply.pieces.empty()) throw http::TransportError(*reply.failure);
    return std::make_unique<Played>(std::move(reply), finished);
  }

  std::vector<http::Request> requests;
  int finished = 0;  // exchanges whose connection could serve again

 private:
  class Played final : public http::Exchange {
   public:
    Played(Reply reply, int& finished)
        : _head{reply.status, reply.content_type, "https://elsewhere.example/?key=KEY-12345678"},
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

inline const http::RetryPolicy POLICY{.retry_statuses = {429, 503}};

/// Plays `reply` to one POST and returns what `read` makes of it.
template <class Read>
auto play(Reply reply, Read read, const http::RetryPolicy& policy = POLICY,
          const http::Secrets& secrets = {}) {
  Playback transport({std::move(reply)});
  return http::send("http://host.example/chat/completions",
                    {.policy = policy,
                     .body = Json::object(),
                     .headers = {},
                     .secrets = secrets,
                     .transport = &transport},
                    read);
}

/// The text of the `Error` that `act` throws; anything else fails the test.
template <class Error, class Act>
std::string text_of(Act act) {
  try {
    act();
  } catch (const Error& error) {
    return error.what();
  } catch (const std::exception& error) {
    ADD_FAILURE() << "another error: " << error.what();
    return "";
  }
  ADD_FAILURE() << "no error";
  return "";
}

inline bool contains(std::string_view text, std::string_view piece) {
  return text.find(piece) != std::string_view::npos;
}

inline double seconds_since(http::Clock::time_point start) {
  return std::chrono::duration<double>(http::Clock::now() - start).count();
}

}  // namespace support
