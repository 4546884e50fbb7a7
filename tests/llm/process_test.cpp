// Calls and the process around them: signals, children, memory. Runs alone, since it counts what is allocated.
#include <csignal>
#include <ctime>
#include <fstream>

#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tovren_mapstead/engines/http/json.hpp"

#include "engines/llm/reply/completion.hpp"
#include "faults/faults.hpp"
#include "memory/memory.hpp"
#include "support.hpp"

namespace {

using namespace support;

const llm::Messages HELLO{llm::user("Hello")};

void stream_slowly(Exchange& exchange) {
  exchange.start_stream();
  for (int i = 0; i < 20; ++i) exchange.chunk("data: {\"choices\":[{\"delta\":{\"content\":\"x\"}}]}\n\n"), exchange.pause(5ms);
  exchange.chunk("data: [DONE]\n\n"), exchange.end_stream();
}

LLMClient client_of(const Server& server, std::shared_ptr<http::Transport> transport = nullptr) {
  return LLMClient({.base_url = server.url(), .model = "m", .api_key = "sk-1", .timeout_s = 10, .max_retries = 0}, {.transport = std::move(transport)});
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
  EXPECT_EQ(ask(client_of(server)), std::string(20, 'x'));
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_GT(signals, 20);
}

// Over the transport of the process, whose connections a child must leave to its parent.
TEST(Process, MayForkWhileCallsRun) {
  Server server(stream_slowly);
  const LLMClient client = client_of(server);
  const std::string answer(20, 'x');
  EXPECT_EQ(ask(client), answer);  // leaves a connection behind
  std::atomic<bool> forking = true;
  std::jthread calls([&] {
    in_threads(4, [&] {
      while (forking) EXPECT_EQ(ask(client), answer);
    });
  });
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    children.push_back(fork());
    if (children.back() == 0) _exit(ask(client_of(server)) == answer ? 0 : 1);
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
    static Server server([](Exchange& exchange) { contains(exchange.request().body, "stream") ? stream_slowly(exchange) : exchange.stall(); }, {.tls = tls});
    static const auto transport = faults::trusting(server);
    for (int i = 0; i < 8; ++i) {
      std::thread([i] {
        const LLMClient client({.base_url = server.url(), .model = "m", .api_key = "sk-1", .stream = i % 2 == 0}, {.transport = transport});
        try {
          for (;;) std::ignore = client.chat(HELLO);
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
    Server server([](Exchange& exchange) { exchange.reply(200, R"({"choices":[{"message":{"content":"hi"}}]})"); }, {.tls = tls});
    // Not by name: a thread that looks it up frees what this one has made, and counts for itself.
    const std::string scheme = tls ? "https://127.0.0.1:" : "http://127.0.0.1:";
    std::size_t nth = 0;
    for (bool failed = true; failed && nth < 5000;) {
      std::ptrdiff_t balance = 0;
      ++nth;
      for (int round = 0; round < 2; ++round) {  // the second finds what is made once for the process
        balance = memory::balance();
        const LLMClient client({.base_url = scheme + std::to_string(server.port()), .model = "m", .api_key = "sk-1", .timeout_s = 10, .max_retries = 0}, {.transport = faults::trusting(server)});
        memory::fail(nth);
        try {
          std::ignore = client.chat(HELLO, {.response_json = true});
        } catch (const std::bad_alloc&) {
        } catch (const llm::LLMError&) {
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

TEST(Process, HoldsBackWhateverIsSent) {
  const std::string brackets(100'000, '['), deep = "data: " + brackets + "\n\n";
  const std::tuple<const char*, std::string, std::string, const char*, std::size_t> cases[] = {
      // what is sent, and then again and again, the error, the most memory in MiB
      {"a refusal", "HTTP/1.1 401 No\r\n" + faults::ENDLESS, "x", "HTTP 401", 4},
      {"a body", faults::JSON + faults::ENDLESS, "[", "larger than 64 MiB", 200},
      {"header lines", "HTTP/1.1 200 OK\r\n", "A: b\r\n", "too large", 4},
      {"a header line", "HTTP/1.1 200 OK\r\nA: ", "b", "too large", 4},
      {"a line", faults::STREAM + faults::ENDLESS_CHUNK, "x", "longer than 16 MiB", 50},
      {"nested events", faults::STREAM + faults::ENDLESS_CHUNK, deep, "exceeded timeout", 20},
      {"a nested body", faults::JSON + "Content-Length: 100000\r\n\r\n" + brackets, "", "", 20}};
  for (const auto& [what, start, filler, told, most_mib] : cases) {
    SCOPED_TRACE(what);
    Server server([&start = start, &filler = filler](Exchange& exchange) {
      exchange.send(start);
      filler.empty() ? exchange.stall() : faults::flood(exchange, filler);
    });
    const LLMClient client({.base_url = server.url(), .model = "m", .api_key = "sk-1", .timeout_s = 2, .max_retries = 0});
    memory::forget_peak();
    const std::size_t before = memory::in_use();
    const auto text = text_of<llm::LLMError>([&] { std::ignore = client.chat(HELLO); });
    const std::size_t mib = (memory::peak() - before) >> 20U;
    EXPECT_TRUE(contains(text, told) && text.size() < 2000) << text;
    EXPECT_LE(mib, most_mib);
    std::printf("%s: %zu MiB\n", what, mib);
  }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

// The most memory of the process that was resident since `forget_resident_peak`, in MB.
long resident_peak_mb() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stol(line.substr(6)) * 1024 / 1'000'000;
  }
  return 0;
}

void forget_resident_peak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

TEST(Process, TellsWithinTimeAndMemoryWhatAHugeReplySays) {
  constexpr std::size_t MEBIBYTE = 1U << 20U;
  const std::string key = "sk-Huge+Key/123", half(key, 0, key.size() - 1);
  const std::tuple<const char*, std::string, const char*, const char*> cases[] = {
      // what is repeated, and after what; the error
      {"backslashes", R"(\\)", R"({"error":")", "missing 'choices'"},
      {"backslashes of an object", R"(\\)", R"({"x":")", "missing 'choices'"},
      {"escaped percent signs", "%25", R"({"x":")", "missing 'choices'"},
      {"what is no escape but once", std::string(4000, '%') + "%2525252541", R"({"x":")",
       "missing 'choices'"},
      {"the key", key + " ", R"({"x":")", "missing 'choices'"},
      {"most of the key", half + "%2525252541", R"({"x":")", "missing 'choices'"},
      {"what is quoted", "%25", R"({"choices":5,"x":")", "malformed"}};
  for (const auto& [what, unit, start, told] : cases) {
    std::string mebibyte;
    while (mebibyte.size() < MEBIBYTE) mebibyte += unit;
    const auto serve = [&, &start = start](Exchange& exchange) {
      const std::size_t size = strlen(start) + 60 * mebibyte.size() + 2;
      exchange.send(faults::JSON + "Content-Length: " + std::to_string(size) + "\r\n\r\n" + start);
      for (int i = 0; i < 60; ++i) exchange.send(mebibyte);
      exchange.send("\"}");
    };
    Server server(serve);
    const LLMClient client({.base_url = server.url(), .model = "m", .api_key = key});
    forget_resident_peak();
    const std::clock_t begin = std::clock();
    std::string text;
    try {
      std::ignore = client.chat(HELLO);
    } catch (const llm::LLMError& error) {
      text.assign(error.what(), 100);
      EXPECT_EQ(std::string_view(error.what()).find(key), std::string_view::npos) << what;
    }
    const double cpu_s = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    const long mb = resident_peak_mb();
    EXPECT_TRUE(contains(text, told)) << what << text;
    EXPECT_LT(cpu_s, SANITIZED ? 60 : 5) << what;
    EXPECT_TRUE(SANITIZED || mb < 400) << what;
    std::printf("%s: %.1f s, %ld MB\n", what, cpu_s, mb);
  }
}

}  // namespace
