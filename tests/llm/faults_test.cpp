// What can go wrong, at each moment of a call, plain and over TLS, to an endpoint and in Copilot's token exchange.
// A cell is one server, one client and one call: how it ends, after how many tries, and that the key stays unseen.
// Runs alone, since it measures time.
#include "faults/faults.hpp"

#include <csignal>
#include <sstream>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include "support.hpp"

namespace {

using namespace faults;
using namespace support;

// Judges how a call ends: "N text" expects an error with that text, or that after a bar, after N attempts; else an answer.
double judge(const Call& call) {
  const Outcome outcome = make(call);
  SCOPED_TRACE(call.name + ": " + outcome.told.substr(0, 2000));
  EXPECT_FALSE(outcome.shows_key);
  EXPECT_LT(outcome.told.size(), 2000U);
  if (call.bound != Bound::none) {
    EXPECT_EQ(outcome.end, call.ends);
  } else if (std::isdigit(call.ends.front()) == 0) {
    EXPECT_EQ(outcome.told, call.ends);
  } else {
    const int tries = call.ends.front() - '0';
    const std::string text = call.ends.substr(2);
    EXPECT_TRUE(contains(outcome.told, text.substr(0, text.find('|'))) || contains(outcome.told, text.substr(text.find('|') + 1)));
    EXPECT_EQ(outcome.end, "error");
    EXPECT_EQ(contains(outcome.told, "after 2 attempts"), tries == 2);
    EXPECT_EQ(outcome.requests, call.reached ? tries : 0);
  }
  return outcome.seconds;
}

// Makes the calls on some threads; afterwards no descriptor is left, and the log has kept the key, too.
// How soon a bound ends a call shows in the shortest of three delays, whatever else the machine does.
void judge_all(std::vector<Call> calls) {
  ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
  setenv("COPILOT_GITHUB_TOKEN", KEY.c_str(), 1);
  forget_authorities();
  std::ostringstream log;
  const auto logger = std::make_shared<spdlog::logger>("tovren_mapstead.engines.llm", std::make_shared<spdlog::sinks::ostream_sink_mt>(log));
  spdlog::register_logger(logger);
  std::ignore = make({.name = "once, for what a process opens for good", .ends = "", .options = {.tls = true}});
  const auto before = descriptors();
  std::atomic<std::size_t> next = 0;
  in_threads(12, [&] {
    for (std::size_t i = next++; i < calls.size(); i = next++) {
      Call& call = calls[i];
      const double most = call.bound != Bound::none ? 0.1 : 20;
      double late = judge(call);
      // A busy machine, or a sanitizer, may not even have begun to send.
      for (int round = 1; round < 3 && late >= most; ++round) {
        call.until *= 4;
        late = judge(call);
      }
      EXPECT_LT(late, most) << call.name;
    }
  });
  for (int i = 0; i < 250 && descriptors() > before; ++i) std::this_thread::sleep_for(20ms);  // a name look-up outlives its call
  EXPECT_EQ(descriptors(), before);
  EXPECT_FALSE(shows_key(log.str()));
  spdlog::drop(logger->name());
  std::printf("%zu cells\n", calls.size());
}

// The same call once for each bound.
void add_bounded(std::vector<Call>& calls, Call call) {
  call.timeout_s = 60;
  if (call.size > 1U << 20U) call.until = 1s;  // it has to be written first
  for (const auto& [bound, end] : {std::pair(Bound::stop, "stopped"), {Bound::deadline, "late"}}) {
    calls.push_back(call);
    calls.back().name.append(", ").append(calls.back().ends = end);
    calls.back().bound = bound;
  }
}

const std::string EVENT = "data: {\"choices\":[{\"delta\":{\"content\":\"hi\"}}]}\n\n";

// What the server has sent before the fault, what it can go on with, and how the call ends for each fault.
struct Moment {
  const char* name;
  bool exchange;  // can befall an exchange for a token, too
  std::string before, filler;
  const char *silence, *reset, *close, *trickle, *flood;
};

const Moment MOMENTS[] = {
    {"before the head", true, "", "HTTP/1.1 103 Early Hints\r\n\r\n", "2 no data for", "2 reset", "2 empty reply", nullptr, "1 too large"},
    {"in the head", true, "HTTP/1.1 200 OK\r\nContent-Type: text/ev", "x", "2 no data for", "2 reset", "2 breaks off", nullptr, "1 too large"},
    {"between header lines", true, "HTTP/1.1 200 OK\r\n", "A: b\r\n", "2 no data for", "2 reset", "2 breaks off", nullptr, "1 too large"},
    {"in an event", false, STREAM + ENDLESS_CHUNK + "data: {\"choi", "x", "2 no data for", "2 reset", "2 breaks off", "2 exceeded", "1 longer than 16 MiB"},
    {"between events", false, STREAM + ENDLESS_CHUNK + EVENT, ": still there\n", "2 no data for", "2 reset", "2 breaks off", "2 exceeded", "2 exceeded"},
    {"after the end marker", false, STREAM + ENDLESS_CHUNK + EVENT + "data: [DONE]\n\n", "x", "hi", "hi", "hi", "hi", "hi"},
    {"in a whole body", true, JSON + ENDLESS + R"({"choices":[{"message":{"content":")", "x", "2 no data for", "2 reset", "2 breaks off", nullptr, "1 larger than|cannot be read"},
    {"in a refusal", true, "HTTP/1.1 401 No\r\n" + ENDLESS + ECHO, " " + KEY, "1 HTTP 401", "1 HTTP 401", "1 HTTP 401", nullptr, "1 HTTP 401"},
    {"in a plea to come back", true, "HTTP/1.1 503 No\r\n" + ENDLESS + ECHO, " " + KEY, "2 HTTP 503", "2 HTTP 503", "2 HTTP 503", nullptr, "2 HTTP 503"}};

struct Fault {
  const char* name;
  const char* const Moment::*ends;
  bool lasts;
  void (*act)(Exchange&, const std::string& filler);
};

const Fault FAULTS[] = {
    {"silence", &Moment::silence, true, stay_silent},
    {"reset", &Moment::reset, false, reset},
    {"close", &Moment::close, false, close},
    {"trickle", &Moment::trickle, true, trickle},
    {"flood", &Moment::flood, false, flood}};

TEST(Faults, OfThePeerEndTheCallAtAnyMoment) {
  std::vector<Call> calls;
  for (const Moment& moment : MOMENTS) {
    for (const Fault& fault : FAULTS) {
      for (int road = 0; road < (moment.exchange ? 4 : 2); ++road) {
        const char* const ends = moment.*fault.ends;
        const auto serve = [&](Exchange& exchange) {
          exchange.send(moment.before);
          fault.act(exchange, moment.filler);
        };
        const bool answers = ends != nullptr && std::isdigit(*ends) == 0;
        const bool cut_short = ends != nullptr && (fault.ends == &Moment::silence || contains(ends, "exceeded"));
        // Long enough for the status that is to be quoted, and for no other.
        const double patience = !cut_short || answers ? 30 : contains(ends, "HTTP") ? 1
                                                                                    : 0.5;
        const Call call{.name = fault.name + std::string(" ") + moment.name + (road % 2 != 0 ? ", TLS" : "") + (road > 1 ? ", exchange" : ""), .ends = ends == nullptr ? "" : ends, .serve = serve, .options = {.tls = road % 2 != 0}, .copilot = road > 1, .timeout_s = patience};
        if (ends != nullptr) calls.push_back(call);
        if (fault.lasts && !answers) add_bounded(calls, call);
      }
    }
  }
  judge_all(std::move(calls));
}

TEST(Faults, OnTheWayToARequest) {
  const auto in_silence = [](Exchange& exchange) { exchange.stall(); };
  const auto deaf = [](Exchange& exchange) { exchange.pause(1h); };
  const auto resetting = [](Exchange& exchange) { exchange.reset(); };
  const auto closing = [](Exchange& exchange) { exchange.close(); };
  const auto garbage = [](Exchange& exchange) { exchange.send("SSH-2.0-OpenSSH_9\r\n"), exchange.stall(); };
  const auto slowly = [](Exchange& exchange) { trickle(exchange, {"\x16\x03\x03\x3f\xff\x02\0\x3f\xfb", 9}); };  // a long TLS record
  const auto refuse = [](Exchange& exchange) { exchange.reply(413, ECHO), exchange.stall(); };
  const loopback::BlackHole silent_connect;
  const std::string hole = silent_connect.address();
  constexpr std::size_t MUCH = 8 << 20U;  // more than sockets buffer

  struct Place {
    const char* name;
    const char* ends;  // null: not to be waited for
    bool lasts = false;
    std::string scheme{}, url{};
    Server::Handler greeting{};
    std::size_t size = 10;
  };

  const Place places[] = {
      {"unknown name", "2 cannot resolve", false, "", "http://no.such.host.invalid"},
      {"name server that is silent", nullptr, true, "", "http://x.slow.test"},
      {"refused connection", "2 cannot connect", false, "", loopback::refused_url()},
      {"silent connect", "2 no data for", true, "", "http://" + hole},
      {"silent connect for TLS", "2 no data for", true, "", "https://" + hole},
      {"silent handshake", "2 no data for", true, "https", "", in_silence},
      {"handshake reset", "2 cannot agree on TLS|cannot connect", false, "https", "", resetting},
      {"handshake closed", "2 cannot agree on TLS", false, "https", "", closing},
      {"no handshake", "1 cannot agree on TLS", false, "https", "", garbage},
      {"slow handshake", nullptr, true, "https", "", slowly},
      {"deaf to the body", "2 no data for", true, "", "", deaf, MUCH},
      {"reset during the body", "2 after 2 attempts", false, "", "", resetting, MUCH},
      {"closed during the body", "2 after 2 attempts", false, "", "", closing, MUCH},
      {"refused during the body", "1 HTTP 413", false, "", "", refuse, MUCH}};
  std::vector<Call> calls;
  for (const Place& place : places) {
    for (const bool tls : {false, true}) {
      if (tls && place.size != MUCH) continue;
      const std::string ends = place.ends != nullptr ? place.ends : "";
      Call call{.name = place.name + std::string(tls ? ", TLS" : ""), .ends = ends, .options = {.tls = tls, .greeting = place.greeting}, .url = place.url, .scheme = place.scheme, .reached = false, .timeout_s = contains(ends, "no data for") ? 0.5 : 30, .size = place.size};
      if (!ends.empty()) calls.push_back(call);
      if (place.lasts) add_bounded(calls, call);
    }
  }
  const Call wait{.name = "wait between tries", .ends = "", .serve = [](Exchange& e) { e.reply(503, ECHO); }, .wait = http::wait_unless_stopped};
  add_bounded(calls, wait);
  judge_all(std::move(calls));
}

TEST(Faults, OfAReply) {
  const std::string answer = R"({"choices":[{"message":{"content":"hi"}}]})";
  const std::string length = "Content-Length: " + std::to_string(answer.size()) + "\r\n\r\n";
  const std::string chunked = JSON + "Transfer-Encoding: chunked\r\n\r\n";
  const std::string last = "0\r\n\r\n";
  std::string much;
  for (int i = 0; i < 20; ++i) much += "HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n";
  const std::tuple<const char*, std::string, const char*> replies[] = {
      {"leave to send", "HTTP/1.1 100 Continue\r\n\r\n" + JSON + length + answer, "hi"},
      {"hints first", much + JSON + length + answer, "hi"},
      {"another protocol", "HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\n" + JSON + length + answer, "1 HTTP 101"},
      {"no content", "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n", "2 breaks off"},
      {"content to be reset", "HTTP/1.1 205 Reset\r\nConnection: close\r\nContent-Length: 0\r\n\r\n", "2 breaks off"},
      {"not modified", "HTTP/1.1 304 Not Modified\r\n\r\n", "1 HTTP 304"},
      {"a status of two digits", "HTTP/1.1 20 OK\r\n" + length + answer, "1 no HTTP server"},
      {"a status out of range", "HTTP/1.1 999 No\r\n" + length + answer, "1 HTTP 999"},
      {"another version", "HTTP/9.9 200 OK\r\n" + length + answer, "1 no HTTP server"},
      {"no head", answer, "1 no HTTP server"},
      {"no header name", JSON + "garbage\r\n: x\r\n" + length + answer, "1 no HTTP server"},
      {"NUL in the head", JSON + std::string("A: \0b\r\n", 7) + length + answer, "1 no HTTP server"},
      {"compressed unasked", JSON + "Content-Encoding: gzip\r\nContent-Length: 20\r\n\r\n\x1f\x8b\x08" + std::string(17, '\0'), "1 not JSON"},
      {"compressed stream", "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\n" + STREAM.substr(STREAM.find("Content")) + chunk("\x1f\x8b\x08\xff\n") + last, "1 not valid UTF-8"},
      {"a length too short", JSON + "Content-Length: 9\r\n\r\n" + answer, "2 breaks off"},
      {"a length too long", JSON + "Content-Length: 1000\r\n\r\n" + answer, "2 breaks off"},
      {"a length below zero", JSON + "Content-Length: -1\r\n\r\n" + answer, "1 no HTTP server"},
      {"a length beyond counting", JSON + "Content-Length: 99999999999999999999\r\n\r\n" + answer, "hi"},
      {"length and chunks", JSON + "Transfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n" + chunk(answer) + last, "hi"},
      {"a chunk beyond counting", chunked + "ffffffffffffffffff\r\n" + answer, "2 connection broke"},
      {"a chunk of 2^64 - 1", chunked + "ffffffffffffffff\r\n" + answer, "2 connection broke"},
      {"a chunk below zero", chunked + "-1\r\n" + answer, "2 connection broke"},
      {"no chunk", chunked + answer, "2 connection broke"},
      {"no line after a chunk", chunked + "2a\r\n" + answer + "0\r\n\r\n", "2 connection broke"},
      {"bytes that are no text", STREAM + chunk("\xff\xfe\n\n") + last, "1 not valid UTF-8"},
      {"nothing", STREAM + last, "2 empty stream"},
      {"no JSON", JSON + length + std::string(answer.size(), 'x'), "1 not JSON"}};
  std::vector<Call> calls;
  for (const bool tls : {false, true}) {
    for (const auto& [name, bytes, ends] : replies) {
      calls.push_back({.name = name + std::string(tls ? ", TLS" : ""), .ends = ends, .serve = [&bytes = bytes](Exchange& exchange) { exchange.send(bytes), exchange.close(); }, .options = {.tls = tls}});
    }
    // Signed by themselves, trusted or not.
    for (const auto& [kind, trusted] : {std::pair(loopback::Certificate::expired, true), {loopback::Certificate::of_another_host, true}, {loopback::Certificate::good, false}}) {
      calls.push_back({.name = "certificate", .ends = "1 cannot trust", .options = {.tls = true, .certificate = kind}, .copilot = tls, .trusted = trusted, .reached = false});
    }
    const std::string page = "<!DOCTYPE html><html><body><h1>Bad</h1>" + ECHO + "</body></html>";
    std::string binary;
    for (int i = 0; i < 100'000; ++i) binary += static_cast<char>(i * i);
    for (const int status : {400, 401, 402, 404, 418, 422, 501, 429, 500, 503}) {
      for (const auto& [name, body] : {std::pair<std::string, std::string>{"empty", ""}, {"echoing", ECHO}, {"huge", std::string(1 << 20U, 'x') + ECHO}, {"binary", binary}, {"a page", page}, {"JSON", Json{{"error", Json(ECHO).dump()}}.dump()}}) {
        const bool again = status == 429 || status == 500 || status == 503;
        calls.push_back({.name = std::to_string(status) + " " + name, .ends = (again ? "2 HTTP " : "1 HTTP ") + std::to_string(status), .serve = [status, body = body](Exchange& e) { e.reply(status, body); }, .options = {.tls = tls}});
      }
    }
  }
  Server other([](Exchange& exchange) { exchange.reply(200, "{}"); });
  for (const int status : {300, 301, 302, 303, 307, 308}) {
    for (const bool copilot : {false, true}) {
      calls.push_back({.name = "redirect", .ends = "1 not followed", .serve = [&, status](Exchange& e) { e.reply(status, ECHO, "text/html", std::string("Location: ").append(other.url()).append("/").append(ECHO).append("?key=").append(KEY).append("\r\n")); }, .copilot = copilot});
    }
  }
  judge_all(std::move(calls));
  EXPECT_EQ(other.connections(), 0);
}

TEST(Names, AddressThatHangsHoldsTheNextOneBackForAMoment) {
  Server server([](Exchange& exchange) { exchange.reply(200, faults::ECHO); });
  const loopback::BlackHole first(false, 0x7F000002, server.port());
  const std::string url = "http://x.two.test:" + std::to_string(server.port());
  const http::RetryPolicy policy{};
  const auto start = http::Clock::now();
  EXPECT_EQ(http::get(url, {.policy = policy, .headers = {}, .secrets = {}},
                      [](http::Response& reply) { return reply.head().status; }),
            200);
  EXPECT_GT(seconds_since(start), 0.2);  // or the first was not tried
  EXPECT_LT(seconds_since(start), 1);
}

}  // namespace
