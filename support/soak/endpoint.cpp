#include "soak/endpoint.hpp"

#include <charconv>
#include <chrono>

#include <nlohmann/json.hpp>

namespace soak {
namespace {

using Json = nlohmann::ordered_json;
using loopback::Exchange;

constexpr const char* EVENTS = "text/event-stream";
constexpr const char* JSON = "application/json";

// One reply: how its bytes fall, with a word to those who listen for secrets.
class Server {
 public:
  Server(Exchange& exchange, const Call& call, const Step& step)
      : _exchange(exchange), _call(call), _step(step), _dice(step.seed) {
    const Json body = Json::parse(exchange.request().body);
    _streamed = body.value("stream", false);
    _key = exchange.request().headers.at("authorization");
  }

  void serve();

 private:
  // Some words, often with the key in them, where a quotation of them may be cut.
  std::string complaint(const std::string& about);

  std::string error_body(const std::string& about) {
    return R"({"error":{"message":")" + complaint(about) + "\"}}";
  }

  std::string event(const Json& event) {
    const std::string end = _dice.one_in(2) ? "\n\n" : "\r\n\r\n";
    return "data: " + event.dump(-1, ' ', _dice.one_in(2)) + end;
  }

  std::string events(bool with_answer);
  std::string whole();
  void trickle(std::string_view bytes);
  void answer();
  void cut();
  void stall();

  void announce(std::size_t length, const char* type) {
    _exchange.send("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: " + std::string(type) +
                   "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
  }

  void leave() { _dice.one_in(2) ? _exchange.close() : _exchange.reset(); }

  Exchange& _exchange;
  const Call& _call;
  const Step& _step;
  Dice _dice;
  bool _streamed = false;
  std::string _key;
};

std::string Server::complaint(const std::string& about) {
  std::string text = about + ' ' + std::string(static_cast<std::size_t>(_dice.below(520)), 'x');
  const std::string_view key = std::string_view(_key).substr(_key.find(' ') + 1);
  if (_dice.one_in(2))
    text.append(" for ").append(_dice.one_in(2) ? std::string(key) : escaped(key));
  return text + " so there";
}

std::string Server::events(bool with_answer) {
  const auto with = [&](const Json& choices) {
    return Json{{"model", _call.model}, {"choices", choices}};
  };
  std::string text = ": well\n\n" + event(with({{{"delta", {{"role", "assistant"}}}}}));
  if (!with_answer) return text;
  if (_dice.one_in(4)) text += event(with({{{"delta", {{"content", "<think>Hm.</think>\n\n"}}}}}));
  for (const std::string& piece : _call.pieces) {
    if (_dice.one_in(16)) text += ": keep alive\nevent: message\n";
    text += event(with({{{"delta", {{"content", piece}}}, {"finish_reason", nullptr}}}));
  }
  text += event(with({{{"delta", Json::object()}, {"finish_reason", "stop"}}}));
  text += event(
      {{"choices", Json::array()},
       {"usage",
        {{"prompt_tokens", _call.prompt.size()}, {"completion_tokens", _call.pieces.size()}}}});
  return _dice.one_in(8) ? text : text + "data: [DONE]\n\n";
}

std::string Server::whole() {
  std::string content = _dice.one_in(4) ? "<think>Hm.</think>\n\n" : "";
  for (const std::string& piece : _call.pieces) content += piece;
  return Json{
      {"model", _call.model},
      {"choices", {{{"message", {{"content", content}}}, {"finish_reason", "stop"}}}},
      {"usage",
       {{"prompt_tokens", _call.prompt.size()}, {"completion_tokens", _call.pieces.size()}}}}
      .dump(-1, ' ', _dice.one_in(2));
}

// Sends a stream in chunks that end anywhere, in the middle of a character too.
void Server::trickle(std::string_view bytes) {
  const int longest = _dice.one_in(2) ? 60'000 : 400;
  while (!bytes.empty()) {
    const std::string_view chunk =
        bytes.substr(0, 1 + static_cast<std::size_t>(_dice.below(longest)));
    if (!_exchange.chunk(chunk)) return;
    bytes.remove_prefix(chunk.size());
    if (_dice.one_in(32)) _exchange.pause(std::chrono::milliseconds(1 + _dice.below(3)));
  }
}

void Server::answer() {
  // Who asks for a stream may get a whole reply.
  if (!_streamed || _dice.one_in(8)) return _exchange.reply(200, whole());
  _exchange.start_stream();
  trickle(events(true));
  if (_dice.one_in(4)) _exchange.pause(std::chrono::milliseconds(_dice.below(8)));
  _exchange.end_stream();
}

void Server::cut() {
  if (_streamed) {
    const std::string text = events(true);
    _exchange.start_stream();
    // Before the finish reason, however the last events are spelt.
    trickle(std::string_view(text).substr(
        0, static_cast<std::size_t>(_dice.below(static_cast<int>(text.size() / 2)))));
  } else {
    const std::string text = whole();
    announce(text.size(), JSON);
    _exchange.send(std::string_view(text).substr(
        0, static_cast<std::size_t>(_dice.below(static_cast<int>(text.size())))));
  }
  leave();
}

void Server::stall() {
  switch (_dice.below(6)) {
    case 0:
      break;
    case 1:
      _exchange.send("HTTP/1.1 200 OK\r\nContent-");
      break;
    case 2:
      announce(1'000'000, _streamed ? EVENTS : JSON);
      break;
    case 3:
      _exchange.send("HTTP/1.1 503 Busy\r\nContent-Length: 1000\r\n\r\n" + complaint("wait"));
      break;
    case 4:
      _exchange.start_stream();
      trickle(events(false));
      break;
    default:
      for (_exchange.start_stream(); _exchange.chunk(": still there\n");)
        _exchange.pause(std::chrono::milliseconds(2));
  }
  _exchange.stall();
}

void Server::serve() {
  if (_dice.one_in(4)) _exchange.pause(std::chrono::milliseconds(_dice.below(20)));
  switch (_step.kind) {
    case Kind::answer:
      return answer();
    case Kind::reset:
      return _exchange.reset();
    case Kind::close:
      return _exchange.close();
    case Kind::cut:
      return cut();
    case Kind::short_length: {
      const std::string text = whole();
      announce(text.size() / 2, JSON);
      _exchange.send(text);
      return _exchange.close();
    }
    case Kind::long_length: {
      const std::string text = _streamed ? events(false) : whole();
      announce(text.size() + 1, _streamed ? EVENTS : JSON);
      _exchange.send(text);
      return _exchange.close();
    }
    case Kind::bad_chunk:
      _exchange.start_stream(_streamed ? EVENTS : JSON);
      _exchange.send("what\r\n" + complaint("no length") + "\r\n");
      return _exchange.close();
    case Kind::no_http:
      _exchange.send("SSH-2.0-" + complaint("ssh") + "\r\n");
      return _exchange.close();
    case Kind::no_json:
      return _exchange.reply(200, "<html>" + complaint("a page") + "</html>", "text/html");
    case Kind::status:
      return _exchange.reply(_step.status, error_body("no"));
    case Kind::redirect:
      return _exchange.reply(307, "", "text/plain",
                             "Location: /elsewhere?" + _key.substr(_key.find(' ') + 1) + "\r\n");
    case Kind::refuse_json:
      return _exchange.reply(400, error_body("Response_Format is unknown"));
    case Kind::refuse_stream:
      return _exchange.reply(400, error_body("stream_options are unknown"));
    case Kind::in_band:
      if (!_streamed) return _exchange.reply(200, error_body("busy"));
      _exchange.start_stream();
      trickle(events(false) + "data: " + error_body("busy") + "\n\ndata: [DONE]\n\n");
      return _exchange.end_stream();
    case Kind::hollow:
      if (!_streamed)
        return _exchange.reply(200, R"({"choices":[],"note":")" + complaint("hm") + "\"}");
      _exchange.start_stream();
      trickle(events(false));
      return _exchange.end_stream();
    case Kind::stall:
      return stall();
  }
}

}  // namespace

void Endpoint::open(const Call& call) {
  const std::lock_guard lock(_mutex);
  _open[call.id] = {.call = &call};
}

int Endpoint::close(const Call& call) {
  const std::lock_guard lock(_mutex);
  const int requests = _open.at(call.id).requests;
  _open.erase(call.id);
  return requests;
}

// The call whose prompt this is and what its turn has come to; nothing once it has ended.
std::optional<Call> Endpoint::begin(std::uint64_t id, const std::string& prompt, Step& step) {
  const std::lock_guard lock(_mutex);
  const auto found = _open.find(id);
  if (found == _open.end()) return std::nullopt;
  const Call& call = *found->second.call;
  const auto turn = static_cast<std::size_t>(found->second.requests++);
  if (turn >= call.steps.size() || prompt != call.prompt) {
    ++_strange;
    return std::nullopt;
  }
  step = call.steps[turn];
  return call;
}

void Endpoint::handle(Exchange& exchange) {
  const loopback::Request& request = exchange.request();
  if (request.target == "/copilot_internal/v2/token") return give_token(exchange);
  const Json body = Json::parse(request.body, nullptr, false);
  const auto authorization = request.headers.find("authorization");
  if (request.target != "/chat/completions" || body.is_discarded() ||
      authorization == request.headers.end() || !holds_secret(authorization->second)) {
    ++_strange;
    return exchange.close();
  }
  const std::string prompt = body.at("messages").at(0).at("content");
  std::uint64_t id = 0;
  std::from_chars(prompt.data(), prompt.data() + prompt.size(), id);
  Step step;
  const auto call = begin(id, prompt, step);
  if (!call) return exchange.close();
  Server(exchange, *call, step).serve();
}

// Each token is soon to be renewed, so that there are exchanges all the time.
void Endpoint::give_token(Exchange& exchange) {
  if (exchange.request().headers.at("authorization") != "token " + key()) ++_strange;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto expires_at = std::chrono::duration_cast<std::chrono::seconds>(now).count() + 1800;
  exchange.reply(
      200, Json{{"token", secret(_seed ^ ++_tokens)}, {"expires_at", expires_at}, {"refresh_in", 1}}
               .dump());
}

}  // namespace soak
