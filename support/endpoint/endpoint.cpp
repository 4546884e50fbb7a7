#include "endpoint/endpoint.hpp"

#include <utility>

#include "endpoint/completion.hpp"

namespace endpoint {

Handler sending(int status, const std::string& body, const std::string& type) {
  return [=](auto& exchange) { exchange.reply(status, body, type); };
}

Handler answering(std::string text, std::string finish_reason) {
  return [answer = Answer{std::move(text), std::move(finish_reason)}](auto& exchange) {
    reply(exchange, Json::parse(exchange.request().body), answer);
  };
}

Endpoint::Endpoint(Handler chat, const loopback::Options& options)
    : _chat(std::move(chat)),
      _server([this](auto& exchange) { next(exchange.request())(exchange); }, options) {
  forget();
}

void Endpoint::does(Handler handler) {
  const std::lock_guard lock(_mutex);
  _handlers.push_back(std::move(handler));
}

void Endpoint::exchanges(int status, const std::string& body) {
  const std::lock_guard lock(_mutex);
  _token = sending(status, body);
}

std::deque<loopback::Request> Endpoint::asked() const {
  const std::lock_guard lock(_mutex);
  return _asked;
}

void Endpoint::forget() {
  const std::lock_guard lock(_mutex);
  _token = sending(200, R"({"token":"made-up-token","expires_at":9e9,"refresh_in":1500})");
  _handlers.clear();
  _asked.clear();
}

Handler Endpoint::next(const loopback::Request& request) {
  constexpr std::size_t MOST = 16;
  const std::lock_guard lock(_mutex);
  if (request.target == "/copilot_internal/v2/token") return _token;
  _asked.push_back(request);
  if (_asked.size() > MOST) _asked.pop_front();
  if (_handlers.empty()) return _chat;
  Handler handler = _handlers.front();
  if (_handlers.size() > 1) _handlers.pop_front();
  return handler;
}

}  // namespace endpoint
