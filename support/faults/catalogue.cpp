#include "faults/catalogue.hpp"

#include <chrono>
#include <iterator>

namespace faults {
namespace {

const std::string EVENT = "data: {\"choices\":[{\"delta\":{\"content\":\"hi\"}}]}\n\n";
const std::string ANSWER = R"({"choices":[{"message":{"content":"hi"}}]})";
const std::string LENGTH = "Content-Length: " + std::to_string(ANSWER.size()) + "\r\n\r\n";
const std::string CHUNKED = "Transfer-Encoding: chunked\r\n\r\n";
const std::string LAST_CHUNK = "0\r\n\r\n";

const Expect HI{Effect::answer, "hi"};
const Expect EXCEEDED{Effect::again, "stream exceeded timeout", End::timeout};

Expect again(const std::string& text) {
  return {Effect::again, text};
}

Expect failure(const std::string& text) {
  return {Effect::failure, text};
}

// What each act means at one moment of a reply.
struct Acts {
  Expect stall{Effect::again, "no data for", End::timeout};
  Expect reset = again("reset");
  Expect close = again("breaks off");
  Expect trickle{.end = End::never};
  Expect flood = failure("too large");
};

// A moment of a reply: what was sent before it, and what the server can go on with.
struct Moment {
  std::string name;
  std::string before{}, filler;
  Acts streamed{};
  Acts whole = streamed;
};

void add_moments(std::vector<Fault>& faults) {
  const Acts body{.flood = failure("larger than 64 MiB")};
  const Expect refused = failure("HTTP 401");
  const Expect late{Effect::failure, "HTTP 401", End::patience};
  const Moment moments[] = {
      {.name = "before the head",
       .filler = "HTTP/1.1 103 Early Hints\r\n\r\n",
       .streamed = {.close = again("empty reply")}},
      {.name = "in the head", .before = "HTTP/1.1 200 OK\r\nContent-Type: te", .filler = "x"},
      {.name = "in an event",
       .before = STREAM + ENDLESS_CHUNK + "data: {\"choi",
       .filler = "x",
       .streamed = {.trickle = EXCEEDED, .flood = failure("longer than 16 MiB")},
       .whole = body},
      {.name = "between events",
       .before = STREAM + ENDLESS_CHUNK + EVENT,
       .filler = ": still there\n",
       .streamed = {.trickle = EXCEEDED, .flood = EXCEEDED},
       .whole = body},
      {.name = "after the end marker",
       .before = STREAM + ENDLESS_CHUNK + EVENT + "data: [DONE]\n\n",
       .filler = "x",
       .streamed = {.stall = HI, .reset = HI, .close = HI, .trickle = HI, .flood = HI},
       .whole = body},
      {.name = "in a whole body",
       .before = JSON + ENDLESS + R"({"choices":[{"message":{"content":")",
       .filler = "x",
       .streamed = body},
      {.name = "in a refusal",
       .before = "HTTP/1.1 401 No\r\n" + ENDLESS + ECHO,
       .filler = " " + KEY,
       .streamed = {late, refused, refused, late, refused}}};
  for (const Moment& moment : moments) {
    const Acts& streamed = moment.streamed;
    const Acts& whole = moment.whole;
    const auto add = [&](const char* what, Act act, const Expect& if_streamed,
                         const Expect& if_whole) {
      faults.push_back(
          {what + moment.name, moment.before, if_streamed, if_whole, act, moment.filler});
    };
    add("silence ", Act::stall, streamed.stall, whole.stall);
    add("reset ", Act::reset, streamed.reset, whole.reset);
    add("close ", Act::close, streamed.close, whole.close);
    add("trickle ", Act::trickle, streamed.trickle, whole.trickle);
    add("flood ", Act::flood, streamed.flood, whole.flood);
  }
}

void add_replies(std::vector<Fault>& faults) {
  const Expect not_http = failure("no HTTP server");
  const Expect not_json = failure("not JSON");
  const Expect not_text = failure("not valid UTF-8");
  const Expect cut = again("breaks off");
  const auto status = [](const char* line, const std::string& rest) {
    return "HTTP/1.1 " + std::string(line) + "\r\nConnection: close\r\n" + rest;
  };
  // An interim reply's header lines are not those of the reply.
  const std::string hint =
      "HTTP/1.1 103 Early Hints\r\nContent-Type: text/event-stream\r\nLocation: /\r\n\r\n";
  std::string hints;
  for (int i = 0; i < 20; ++i) hints += hint;

  const Fault replies[] = {
      {"hints first", hints + JSON + LENGTH + ANSWER, HI},
      {"hints before a redirect", hints + status("302 Found", "Content-Length: 0\r\n\r\n"),
       failure("(a redirect, which is not followed")},
      {"another protocol",
       status("101 Switching Protocols", "Upgrade: x\r\n\r\n") + JSON + LENGTH + ANSWER,
       failure("HTTP 101")},
      {"no content", status("204 No Content", "\r\n"), cut},
      {"another version", "HTTP/9.9 200 OK\r\n" + LENGTH + ANSWER, not_http},
      {"no head", ANSWER, not_http},
      {"NUL in the head", JSON + std::string("A: \0b\r\n", 7) + LENGTH + ANSWER, not_http},
      {"a length too long", JSON + "Content-Length: 1000\r\n\r\n" + ANSWER, cut},
      {"length and chunks", JSON + "Content-Length: 3\r\n" + CHUNKED + chunk(ANSWER) + LAST_CHUNK,
       HI},
      {"a chunk beyond counting", JSON + CHUNKED + "ffffffffffffffffff\r\n" + ANSWER,
       again("connection broke")},
      {"bytes that are no text", STREAM + chunk("\xff\xfe\n\n") + LAST_CHUNK, not_text, not_json},
      {"an empty stream", STREAM + LAST_CHUNK, again("empty stream"), cut},
      {"a stream without an answer",
       STREAM + chunk("data: {\"choices\":[{\"delta\":{\"role\":\"x\"}}]}\n\n") + LAST_CHUNK,
       again("empty stream"), not_json},
      {"an error in a stream",
       STREAM + chunk(EVENT + "data: {\"error\":{\"message\":\"" + ECHO + "\"}}\n\n") + LAST_CHUNK,
       again("stream error"), not_json},
      {"an error in place of an answer", JSON + "\r\n{\"error\":\"" + KEY + "\"}",
       failure("missing 'choices'")},
      {"another JSON", JSON + "\r\n[]", failure("LLM response is ")},
      {"half of the JSON", JSON + "\r\n" + ANSWER.substr(0, 12),
       again("breaks off in the middle of its JSON")},
      {"a page", JSON + "\r\n<!DOCTYPE html>" + ECHO, not_json},
      {"a quota that is used up", status("429 No", "\r\ninsufficient_quota"), again("HTTP 429")},
      {"streaming is refused",
       status("400 No", "\r\nstream_options are unknown"),
       {Effect::without_stream, "HTTP 400"}}};
  faults.insert(faults.end(), std::begin(replies), std::end(replies));
}

void add_statuses(std::vector<Fault>& faults) {
  const auto add = [&](int status, const std::string& name, const std::string& headers,
                       const std::string& body, const Expect& expect) {
    const std::string number = std::to_string(status);
    faults.push_back({.name = number + " " + name,
                      .bytes = "HTTP/1.1 " + number + " No\r\n" + headers +
                               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body,
                      .streamed = expect,
                      .act = Act::keep});
  };
  for (const int status : {400, 401, 402, 403, 404, 407, 413, 418, 422, 501}) {
    add(status, "echoing", "", ECHO, failure("HTTP " + std::to_string(status)));
  }
  for (const int status : {408, 409, 429, 500, 502, 503, 504}) {
    add(status, "echoing", "", ECHO, again("HTTP " + std::to_string(status)));
  }
  const std::string json = R"({"error":"\"sk-Fa\\\/ult+Key=12345 )" + KEY + R"(\""})";
  for (const std::string& body : {std::string(), json}) {
    add(401, body, "", body, failure("HTTP 401"));
    add(503, body, "", body, again("HTTP 503"));
  }
  for (const int status : {300, 308}) {
    add(status, "to another URL", "Location: http://u:" + PASSWORD + "@127.0.0.1:9/\r\n", ECHO,
        failure("(a redirect, which is not followed"));
  }
  add(302, "to another path", "Location: /x/" + ECHO + "?key=" + PASSWORD + "\r\n", ECHO,
      failure(", which is not followed"));
}

}  // namespace

const std::vector<Fault>& catalogue() {
  static const std::vector<Fault> faults = [] {
    std::vector<Fault> all;
    add_moments(all);
    add_replies(all);
    add_statuses(all);
    return all;
  }();
  return faults;
}

void play(loopback::Exchange& exchange, const Fault& fault) {
  exchange.send(fault.bytes);
  switch (fault.act) {
    case Act::keep:
      return;
    case Act::close:
      return exchange.close();
    case Act::reset:
      return exchange.reset();
    case Act::stall:
      return exchange.stall();
    case Act::trickle:
      return trickle(exchange, fault.filler);
    case Act::flood:
      break;
  }
  std::string much;
  while (much.size() < std::size_t{1} << 16U) much += fault.filler;
  while (exchange.send(much)) {
  }
  exchange.close();
}

void trickle(loopback::Exchange& exchange, const std::string& filler) {
  for (std::size_t at = 0; exchange.send({&filler[at % filler.size()], 1}); ++at) {
    exchange.pause(std::chrono::milliseconds(2));
  }
}

}  // namespace faults
