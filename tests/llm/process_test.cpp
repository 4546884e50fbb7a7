// Calls and the process around them: signals, children, memory. Runs alone, since it counts what is
// allocated.
#include <climits>
#include <csignal>
#include <ctime>

#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tovren_mapstead/engines/http/json.hpp"

#include "endpoint/completion.hpp"
#include "engines/llm/reply/completion.hpp"
#include "faults/faults.hpp"
#include "memory/memory.hpp"
#include "support.hpp"

namespace {

using namespace support;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

const std::string KEY = "sk-Huge+Key/123";
const llm::Messages HELLO{llm::user("Hello")};

const std::string ANSWER = R"({"choices":[{"message":{"content":"hi"}}]})";
const std::string SLOW_ANSWER(480, 'x');

// Takes 100 ms.
void stream_slowly(Exchange& exchange) {
  const auto asked = endpoint::Json::parse(exchange.request().body);
  endpoint::reply(exchange, asked, {.text = SLOW_ANSWER}, 5ms);
}

LLMClient client_of(const Server& server, std::shared_ptr<http::Transport> transport = nullptr,
                    double timeout_s = 10) {
  // Not by name: a thread that looks it up frees what another has made, and counts for itself.
  const std::string scheme = server.certificate().empty() ? "http" : "https";
  return LLMClient({.base_url = scheme + "://127.0.0.1:" + std::to_string(server.port()),
                    .model = "m",
                    .api_key = KEY,
                    .timeout_s = timeout_s,
                    .max_retries = 0},
                   {.transport = std::move(transport)});
}

std::string ask(const LLMClient& client) {
  return client.chat(HELLO, {.should_stop = [] { return false; }}).content();
}

TEST(Process, GoesOnThroughSignals) {
  static std::atomic<int> signals = 0;

  struct sigaction action {};

  action.sa_handler = [](int) { ++signals; };
  ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);  // no SA_RESTART: every wait is interrupted
  Server server(stream_slowly);
  const itimerval often{{0, 1000}, {0, 1000}}, never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(ask(client_of(server)), SLOW_ANSWER);
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_GT(signals, 20);
}

// Two rounds of calls at once: the second finds connections at rest, but not for all. Neither a
// refusal whose text comes late nor a large head spoils a connection.
TEST(Process, KeepsSomeConnectionsForItselfAlone) {
  constexpr int CALLS = 80;
  const std::string header = "X: " + std::string(20'000, 'x') + "\r\n";
  std::atomic<int> waiting = 0;
  Server server([&](Exchange& exchange) {
    const bool refuses = ++waiting <= CALLS;
    while (waiting % CALLS != 0) exchange.pause(1ms);
    if (!refuses) return exchange.reply(200, ANSWER);
    exchange.send("HTTP/1.1 401 No\r\nContent-Length: 9\r\n" + header + "\r\n");
    exchange.pause(2ms);
    exchange.send("no, never");
  });
  const LLMClient client = client_of(server, http::make_transport());
  in_threads(CALLS, [&] { EXPECT_THROW(ask(client), llm::LLMError); });
  in_threads(CALLS, [&] { EXPECT_EQ(ask(client), "hi"); });
  EXPECT_GT(server.connections(), CALLS);
  EXPECT_LT(server.connections(), CALLS + CALLS / 2);
  EXPECT_EQ(faults::inheritable_connections(), 0);
}

// Over the transport of the process, whose connections a child must leave to its parent.
TEST(Process, MayForkWhileCallsRun) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a child may find the sanitizer's allocator locked by a thread of its parent";
#endif
  Server server(stream_slowly);
  const LLMClient client = client_of(server);
  EXPECT_EQ(ask(client), SLOW_ANSWER);  // leaves a connection behind
  std::atomic<bool> forking = true;
  std::jthread calls([&] {
    in_threads(4, [&] {
      while (forking) EXPECT_EQ(ask(client), SLOW_ANSWER);
    });
  });
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    std::jthread([&] {  // which has used nothing of the library
      children.push_back(fork());
      if (children.back() == 0) _exit(ask(client_of(server)) == SLOW_ANSWER ? 0 : 1);
    })
        .join();
    std::this_thread::sleep_for(20ms);
  }
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  forking = false;
  calls.join();
  EXPECT_GT(server.connections(), 8);  // one for each child at least
}

TEST(Process, MayEndWhileCallsRun) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const auto end = [](bool tls) {
    static Server server(
        [](Exchange& exchange) {
          contains(exchange.request().body, "Hello") ? stream_slowly(exchange) : exchange.stall();
        },
        {.tls = tls});
    static const LLMClient client = client_of(server, faults::trusting(server));
    for (int i = 0; i < 8; ++i) {
      std::thread([messages = i % 2 == 0 ? HELLO : llm::Messages{llm::user("Say nothing")}] {
        try {
          for (;;) std::ignore = client.chat(messages);
        } catch (const llm::LLMStopped&) {
          std::this_thread::sleep_for(1h);  // what is the thread's own may be gone
        }
      }).detach();
    }
    std::this_thread::sleep_for(150ms);
    std::exit(0);
  };
  for (int i = 0; i < 10; ++i) EXPECT_EXIT(end(i % 2 != 0), testing::ExitedWithCode(0), "");
}

TEST(Process, SurvivesEveryLackOfMemory) {
  for (const bool tls : {false, true}) {
    Server server([](Exchange& exchange) { exchange.reply(200, ANSWER); }, {.tls = tls});
    std::size_t nth = 0;
    for (bool failed = true; failed && nth < 5000;) {
      std::ptrdiff_t balance = 0;
      ++nth;
      // The second round finds what is made once for the process.
      for (int round = 0; round < 2; ++round) {
        balance = memory::balance();
        const LLMClient client = client_of(server, faults::trusting(server));
        memory::fail(nth);
        try {
          std::ignore = client.chat(HELLO, {.response_json = true});
        } catch (const std::bad_alloc&) {
        } catch (const llm::LLMError& error) {  // libcurl's own
          if (contains(error.what(), "writing")) ADD_FAILURE() << error.what();
        }
        failed = memory::fail(0);
        EXPECT_EQ(ask(client), "hi") << nth;
      }
      EXPECT_LE(memory::balance(), balance) << nth;
    }
    std::printf("%zu allocations\n", nth);
    EXPECT_GT(nth, 50U);
  }
}

TEST(Process, BoundsWhatAReplyTakes) {
  struct Case {
    const char* name;
    std::string start, filler;
    const char* error;
    std::ptrdiff_t most_mib;
    int mebibytes = INT_MAX;  // of filler; then the reply ends well
  };

  constexpr int MANY = SANITIZED ? 6 : 30;
  const std::string brackets(100'000, '[');
  const std::string json = faults::JSON + "\r\n{\"error\":\"";
  const Case cases[] = {
      {"a refusal", "HTTP/1.1 401 No\r\n" + faults::ENDLESS, "x", "HTTP 401", 4},
      {"a body", faults::JSON + faults::ENDLESS, "[", "larger than 64 MiB", 200},
      {"header lines", "HTTP/1.1 200 OK\r\n", "A: b\r\n", "too large", 4},
      {"a line", faults::STREAM + faults::ENDLESS_CHUNK, "x", "longer than 16 MiB", 50},
      {"nested events", faults::STREAM + faults::ENDLESS_CHUNK, "data: " + brackets + "\n\n",
       "exceeded timeout", 20},
      {"a nested body", faults::JSON + "Content-Length: 100000\r\n\r\n" + brackets, "", "", 20, 0},
      {"backslashes", json, R"(\\)", "missing 'choices'", 480, MANY},
      {"most of the key", json, KEY.substr(0, KEY.size() - 1) + "%2525252541", "missing 'choices'",
       520, MANY},
      {"what is quoted", faults::JSON + "\r\n{\"choices\":5,\"x\":\"", "%25", "malformed", 520,
       MANY}};
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    std::string mebibyte;
    while (mebibyte.size() < 1U << 20U && !row.filler.empty()) mebibyte += row.filler;
    Server server([&](Exchange& exchange) {
      exchange.send(row.start);
      for (int i = 0; i < row.mebibytes && exchange.send(mebibyte); ++i) {
      }
      exchange.send("\"}");
      exchange.close();
    });
    const LLMClient client = client_of(server, http::make_transport(), 2);
    const std::ptrdiff_t before = memory::forget_peak();
    const std::clock_t begin = std::clock();
    const auto text = text_of<llm::LLMError>([&] { ask(client); });
    EXPECT_TRUE(contains(text, row.error) && !contains(text, KEY)) << text.substr(0, 200);
    EXPECT_LE((memory::peak() - before) >> 20U, row.most_mib);
    EXPECT_LT(static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC, SANITIZED ? 20 : 5);
  }
}

}  // namespace
