// What happens to a connection between two calls, and what the next call makes of it.
#include "faults/faults.hpp"
#include "support.hpp"

namespace {

using namespace support;

// What a server does on a connection whose reply is complete.
struct Event {
  const char* name;
  std::string bytes{};
  void (Exchange::*act)() = nullptr;
  bool tls_only = false;
  bool rests = false;  // the connection is as good as before
};

const Event EVENTS[] = {
    {.name = "nothing", .rests = true},
    {.name = "ticket", .act = &Exchange::ticket, .tls_only = true, .rests = true},
    {.name = "close", .act = &Exchange::close},
    {.name = "close_notify alone", .act = &Exchange::close_notify, .tls_only = true},
    {.name = "FIN alone", .act = &Exchange::cut, .tls_only = true},
    {.name = "line end", .bytes = "\r\n"},
    {.name = "reply",
     .bytes = "HTTP/1.1 408 Late\r\nContent-Length: 2\r\n\r\n0\n",
     .act = &Exchange::close}};

// When a reply ends, seen from the line that the client waits for.
enum class End { at_once, later, at_next_call };

// A reply with the number of the request for each '#'.
struct Form {
  const char* name;
  std::string head, tail;
  bool whole;  // the client reads it to its end, else only its first line
  End end = End::at_once;
};

const std::string LENGTH = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n";
const std::string CHUNKED = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n#\n\r\n";
const std::string LAST_CHUNK = "0\r\n\r\n";

const Form FORMS[] = {{"length", LENGTH, "#\n", true},
                      {"chunked", CHUNKED, LAST_CHUNK, true},
                      {"stream, settled", CHUNKED, LAST_CHUNK, false, End::later},
                      {"stream, parked", CHUNKED, LAST_CHUNK, false, End::at_next_call}};

std::string post(http::Transport& transport, const std::string& url, int number, bool whole) {
  auto options = over(transport);
  options.body.add("call", number);
  return http::send(url, std::move(options), [&](http::Response& reply) {
    return whole ? reply.read_rest(1000) : std::string(*reply.next_line()) + "\n";
  });
}

void judge(const Event& event, const Form& form, std::chrono::milliseconds after, bool tls) {
  std::atomic<int> begun = 0, played = 0;
  const auto serve = [&](Exchange& exchange) {
    const std::string& body = exchange.request().body;  // {"call":N}
    const char number = body.at(body.size() - 2);
    std::string head = form.head, tail = form.tail;
    std::ranges::replace(head, '#', number);
    std::ranges::replace(tail, '#', number);
    exchange.send(head);
    if (form.end == End::later) exchange.pause(3ms);
    while (form.end == End::at_next_call && begun <= number - '0') exchange.pause(1ms);
    exchange.send(after == 0ms ? tail + event.bytes : tail);
    if (after > 0ms) {
      exchange.pause(after);
      exchange.send(event.bytes);
    }
    if (event.act != nullptr) (exchange.*event.act)();
    ++played;
  };
  Server server(serve, {.tls = tls});
  const auto transport = faults::trusting(server);
  const int calls = event.rests && after == 0ms ? 9 : 3;
  std::string due, told;
  for (int i = 1; i <= calls; ++i) {
    begun = i;
    due += std::to_string(i) + "\n";
    try {
      told += post(*transport, server.url(), i, form.whole);
    } catch (const http::Error& error) {
      told += error.what() + std::string("\n");
      continue;
    }
    if (form.end == End::at_next_call) continue;
    for (int ms = 0; ms < 2000 && played < i; ++ms) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(2ms);
  }
  begun = INT_MAX;
  SCOPED_TRACE(event.name + std::string(" after ") + form.name + (tls ? " over TLS" : ""));
  EXPECT_EQ(told, due) << after.count() << " ms";
  EXPECT_EQ(server.requests(), calls) << after.count() << " ms";
  EXPECT_EQ(server.connections(), event.rests ? 1 : calls) << after.count() << " ms";
}

TEST(Idle, ConnectionServesAgainOnlyIfNothingHasCome) {
  using std::chrono::milliseconds;  // from the end of the reply to the event
  std::vector<std::tuple<const Event&, const Form&, milliseconds, bool>> cells;
  for (const Event& event : EVENTS) {
    for (const Form& form : FORMS) {
      for (const auto after : {0ms, 5ms, 50ms}) {
        // Nobody can tell what comes after the next request was sent from the reply to it.
        if (form.end == End::at_next_call && (after != 0ms || event.bytes.empty())) continue;
        if (!event.tls_only) cells.emplace_back(event, form, after, false);
        cells.emplace_back(event, form, after, true);
      }
    }
  }
  std::atomic<std::size_t> next = 0;
  in_threads(16, [&] {
    for (std::size_t i = next++; i < cells.size(); i = next++) std::apply(judge, cells[i]);
  });
}

TEST(Idle, ConnectionServesAgainNoLongerThanTheServerKeepsIt) {
  const std::tuple<const char*, std::chrono::milliseconds, int> rows[] = {
      // a line of the reply, the time at rest, connections for two requests
      {"", 5s, 2},  // common servers close after five seconds
      {"keep-alive: max=9, TIMEOUT=1\r\n", 800ms, 2},
      {"Keep-Alive: timeout=60\r\n", 5s, 1},
      {"Keep-Alive: timeout=99999999999999999999\r\n", 5s, 2},
      {"Keep-Alive: timeout=-1, timeout=, =;\r\n", 3s, 1}};
  std::atomic<std::size_t> next = 0;
  in_threads(static_cast<int>(std::size(rows)), [&] {
    const auto& [header, idle, connections] = rows[next++];
    SCOPED_TRACE(header + std::to_string(idle.count()) + " ms");
    Server server([&line = header](Exchange& to) { to.reply(200, "#\n", "text/plain", line); });
    const auto transport = http::make_transport();
    EXPECT_EQ(post(*transport, server.url(), 1, true), "#\n");
    std::this_thread::sleep_for(idle);
    EXPECT_EQ(post(*transport, server.url(), 2, true), "#\n");
    EXPECT_EQ(server.connections(), connections);
    EXPECT_EQ(server.requests(), 2);
  });
}

// A failover or a NAT box forgets all connections at once, and new ones work.
TEST(Idle, DeadPoolCostsOneAttempt) {
  constexpr int POOLED = 8;
  for (const auto& [act, tls] : {std::pair(&Exchange::stall, false),
                                 {&Exchange::stall, true},
                                 {&Exchange::reset, false},
                                 {&Exchange::close, true}}) {
    SCOPED_TRACE(tls);
    std::atomic<int> waiting = 0, waits = 0;
    std::atomic<bool> dead = false;
    const auto serve = [&, end = act](Exchange& exchange) {
      thread_local const bool doomed = !dead;  // a connection has a thread of its own
      if (dead && doomed) return (exchange.*end)();
      for (++waiting; waiting < POOLED;) exchange.pause(1ms);
      exchange.reply(200, R"({"choices": [{"message": {"content": "hi"}}]})");
    };
    Server server(serve, {.tls = tls});
    const auto transport = faults::trusting(server);
    const auto ask = [&](double timeout_s) {
      const LLMClient client(
          {.base_url = server.url(),
           .model = "m",
           .api_key = "k",
           .timeout_s = timeout_s,
           .max_retries = 1},
          {.transport = transport, .wait = [&](double, auto&, auto) { ++waits; }});
      return faults::outcome_of([&] { return client.chat({}).content(); }).text;
    };
    in_threads(POOLED, [&] { EXPECT_EQ(ask(20), "hi"); });
    dead = true;
    const auto start = http::Clock::now();
    EXPECT_EQ(ask(0.5), "hi");
    EXPECT_EQ(ask(0.5), "hi");
    EXPECT_LT(seconds_since(start), 2);
    EXPECT_EQ(waits, 1);
    EXPECT_EQ(server.requests(), POOLED + 3);
    EXPECT_EQ(server.connections(), POOLED + 1);
  }
}

}  // namespace
