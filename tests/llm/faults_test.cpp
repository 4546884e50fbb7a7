// Every fault of the catalogue, and those on the way to a request, plain and over TLS, met by a
// request for a stream, for a whole reply and for a Copilot token: how the call ends, after how
// many attempts, and that its key stays unseen. Runs alone, since it measures time.
#include "faults/faults.hpp"

#include <csignal>
#include <cstdlib>
#include <ctime>

#include "support.hpp"

namespace {

using namespace faults;
using namespace support;

constexpr std::size_t MUCH = 8 << 20U;  // more than sockets buffer

// A call and how it should end, which is said by its bound if it has one.
struct Cell {
  Call call;
  Outcome expected;
};

double judge(const Cell& cell) {
  const Outcome outcome = make(cell.call);
  SCOPED_TRACE(cell.call.name + ": " + outcome.text.substr(0, 2000));
  const std::string all = outcome.text + outcome.causes;
  EXPECT_FALSE(shows_secret(all));
  EXPECT_LT(outcome.text.size(), 2000U);
  EXPECT_EQ(outcome.end, cell.expected.end);
  if (cell.call.bound != Bound::none) return outcome.seconds;
  EXPECT_TRUE(contains(outcome.text, cell.expected.text)) << "expected: " << cell.expected.text;
  EXPECT_EQ(outcome.requests, cell.expected.requests);
  EXPECT_EQ(outcome.attempts, cell.expected.attempts);
  return outcome.seconds;
}

// Judges the cells on some threads. Afterwards no descriptor is left.
// How soon a bound ends a call is the shortest of three delays, because the machine may be busy.
void judge_all(std::vector<Cell> cells) {
  ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
  setenv("COPILOT_GITHUB_TOKEN", KEY.c_str(), 1);
  const Server unused([](Exchange&) {}, {.tls = true});
  set_authorities(unused.certificate());
  mute_log();
  std::ignore = make({.name = "for what a process opens for good", .options = {.tls = true}});
  const auto before = entries();
  std::atomic<std::size_t> next = 0;
  in_threads(32, [&] {
    for (std::size_t i = next++; i < cells.size(); i = next++) {
      Cell& cell = cells[i];
      const double most = cell.call.bound != Bound::none ? 0.1 : 20;
      double seconds = judge(cell);
      for (int round = 1; round < 3 && seconds >= most; ++round) {
        cell.call.until *= 4;
        seconds = judge(cell);
      }
      EXPECT_LT(seconds, most) << cell.call.name;
    }
  });
  // A name look-up outlives its call.
  for (int i = 0; i < 250 && entries() > before; ++i) std::this_thread::sleep_for(20ms);
  EXPECT_EQ(entries(), before);
}

// Adds the call once for each bound.
void add_bounded(std::vector<Cell>& cells, Call call) {
  call.timeout_s = 60;
  if (call.size >= MUCH) call.until = 1s;  // it has to be written first
  const std::string name = call.name;
  for (const auto& [bound, end] :
       {std::pair(Bound::stop, "LLMStopped"), {Bound::deadline, "LLMTimeout"}}) {
    call.bound = bound;
    call.name = name + ", " + end;
    cells.push_back({call, {.end = end}});
  }
}

TEST(Faults, OfAReplyMeanWhatTheCatalogueSays) {
  std::vector<Cell> cells;
  for (const Fault& fault : catalogue()) {
    for (const bool tls : {false, true}) {
      for (const auto& [asked, name] : {std::pair(Asked::streamed, ", streamed"),
                                        {Asked::whole, ", whole"},
                                        {Asked::token, ", token"}}) {
        const Expect due = expect(fault, asked);
        const Call call{.name = fault.name + name + (tls ? ", TLS" : ""),
                        .serve = [&fault](Exchange& exchange) { play(exchange, fault); },
                        .options = {.tls = tls},
                        .asked = asked,
                        .timeout_s = due.end == End::timeout ? 0.5 : 60,
                        .attempts = due.end == End::patience ? 1 : 2};
        if (due.end != End::never) {
          cells.push_back({call, predict({&fault, &fault}, asked, call.attempts)});
        }
        if (due.end != End::soon && due.effect != Effect::answer) add_bounded(cells, call);
      }
    }
  }
  judge_all(std::move(cells));
}

TEST(Faults, OnTheWayToARequest) {
  const auto silent = [](Exchange& exchange) { exchange.stall(); };
  const auto deaf = [](Exchange& exchange) { exchange.pause(1h); };
  const auto resetting = [](Exchange& exchange) { exchange.reset(); };
  const auto garbage = [](Exchange& exchange) {
    exchange.send("SSH-2.0-OpenSSH_9\r\n");
    exchange.stall();
  };
  const auto slow_record = [](Exchange& exchange) {
    trickle(exchange, {"\x16\x03\x03\x3f\xff\x02\0\x3f\xfb", 9});
  };
  const auto refusing = [](Exchange& exchange) {
    exchange.reply(413, ECHO);
    exchange.stall();
  };
  const loopback::BlackHole hole;
  const std::string refused =
      "http://u:" + PASSWORD + "@" + loopback::refused_url().substr(7) + "/" + KEY + "?" + PASSWORD;
  // Reads for longer than the timeout, but never stops to.
  const auto slow = [](Exchange& exchange) {
    for (int i = 0; i < 200; ++i) {
      for (int bytes = 0; bytes < 8; ++bytes) exchange.read_some();
      exchange.pause(15ms);
    }
  };
  std::vector<Cell> cells;
  const auto ends = [&](const Call& call, const char* text, int attempts = 2) {
    cells.push_back({call, {.end = "LLMError", .text = text, .attempts = attempts}});
  };
  // Silence lasts until the timeout or a bound.
  const auto hangs = [&](Call call) {
    add_bounded(cells, call);
    call.timeout_s = 0.5;
    ends(call, "no data for");
  };
  const auto to = [](const std::string& url) { return Call{.name = url, .url = url}; };
  const auto handshake = [](const char* name, const Server::Handler& greeting) {
    return Call{.name = name, .options = {.greeting = greeting}, .host = "127.0.0.1"};
  };
  ends(to("http://no.such.host.invalid"), "cannot resolve");
  add_bounded(cells, to("http://x.slow.test"));
  ends(to(refused), "cannot connect");
  hangs(to("http://" + hole.address()));
  hangs(handshake("silent handshake", silent));
  add_bounded(cells, handshake("slow handshake", slow_record));
  // Before or after the first byte of the handshake: the texts differ.
  ends(handshake("handshake reset", resetting), "failed after 2 attempts");
  ends(handshake("no handshake", garbage), "cannot agree on TLS", 1);
  ends({.name = "unknown authority", .options = {.tls = true}, .trusted = false}, "cannot trust",
       1);
  ends({.name = "another host", .options = {.tls = true}, .host = "x.two.test"}, "cannot trust", 1);
  for (const bool tls : {false, true}) {
    const auto upload = [=](const char* name, const Server::Handler& greeting) {
      return Call{.name = name + std::string(tls ? ", TLS" : ""),
                  .options = {.tls = tls, .greeting = greeting},
                  .size = MUCH};
    };
    Call patient = upload("slow upload", slow);
    patient.serve = [](Exchange& exchange) { exchange.reply(401, "enough"); };
    patient.timeout_s = 2;  // a busy server is silent for a while before it replies
    patient.size = 4 * MUCH;
    cells.push_back({patient, {.end = "LLMError", .text = "enough", .requests = 1}});
    hangs(upload("deaf to the body", deaf));
    ends(upload("reset during the body", resetting), "failure");
    ends(upload("refused during the body", refusing), "HTTP 413", 1);
  }
  add_bounded(cells, {.name = "wait between attempts",
                      .serve = [](Exchange& exchange) { exchange.reply(503, ECHO); },
                      .wait = http::wait_unless_stopped});
  judge_all(std::move(cells));
}

TEST(Faults, SilenceCostsNoProcessorTime) {
  const Server server([](Exchange& exchange) { exchange.stall(); });
  const LLMClient client({.base_url = server.url(), .model = "m", .api_key = KEY});
  const std::clock_t start = std::clock();
  const auto deadline = http::Clock::now() + 500ms;
  EXPECT_THROW(
      std::ignore = client.chat({}, {.should_stop = [] { return false; }, .deadline = deadline}),
      llm::LLMTimeout);
  EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, 0.1);
}

TEST(Names, AddressThatHangsHoldsTheNextOneBackForAMoment) {
  Server server([](Exchange& exchange) { exchange.reply(200, ECHO); });
  const loopback::BlackHole first(0x7F000002, server.port());
  const std::string url = "http://x.two.test:" + std::to_string(server.port());
  const auto start = http::Clock::now();
  EXPECT_EQ(http::get(url, over(http::default_transport()),
                      [](http::Response& reply) { return reply.head().status; }),
            200);
  EXPECT_GT(seconds_since(start), 0.2);  // or the first was not tried
  EXPECT_LT(seconds_since(start), 1);
}

}  // namespace
