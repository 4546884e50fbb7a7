// How many connections calls open, and what a new one costs.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "endpoint.hpp"
#include "figure.hpp"
#include "measure.hpp"

namespace bench {
namespace {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;
using std::chrono::milliseconds;

const llm::Messages MESSAGES{llm::user("hello")};

llm::LLMClient client_of(const std::string& url) {
  return llm::LLMClient({.base_url = url, .model = "m", .api_key = "k"},
                        {.transport = http::make_transport()});
}

// The connections that `act` opens.
template <class Act>
int opened(const Endpoint& endpoint, Act act) {
  const llm::LLMClient counter = client_of(endpoint.url() + "/connections");
  const auto count = [&] { return std::stoi(counter.chat(MESSAGES).content()); };
  const int before = count();
  act();
  return count() - before;
}

void count_of_streams(const Endpoint& endpoint, const Report& report) {
  struct Case {
    const char* name;
    const char* path;
    milliseconds apart;
    int limit;
  };

  for (const auto& [name, path, apart, limit] :
       {Case{"connections_stream_0ms", "/late/0", milliseconds(0), 1},
        Case{"connections_stream_1ms", "/late/1", milliseconds(0), 1},
        Case{"connections_stream_20ms", "/late/20", milliseconds(0), 2},
        Case{"connections_stream_20ms_apart", "/late/20", milliseconds(60), 1}}) {
    const int count = opened(endpoint, [&, &path = path, &apart = apart] {
      const llm::LLMClient client = client_of(endpoint.url() + path);
      for (int i = 0; i < 20; ++i) {
        std::ignore = client.chat(MESSAGES);
        std::this_thread::sleep_for(apart);
      }
    });
    report({.name = name,
            .ours = static_cast<double>(count),
            .unit = "connections",
            .limit = static_cast<double>(limit)});
  }
}

void measure_threads(const Endpoint& endpoint, const Report& report) {
  const int count = opened(endpoint, [&] {
    const llm::LLMClient client = client_of(endpoint.url() + "/late/0");
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        for (int n = 0; n < 100; ++n) std::ignore = client.chat(MESSAGES);
      });
    }
  });
  report({.name = "connections_threads",
          .ours = static_cast<double>(count),
          .unit = "connections",
          .limit = 8});
}

// What a call costs a new thread whose connection is new, too, as the server closes each, with all
// the authorities of the system to trust, once the process has read them.
Figure measure_tls(const Endpoint& endpoint) {
  constexpr int CALLS = 25;
  const auto file =
      std::filesystem::temp_directory_path() / ("authorities." + std::to_string(getpid()));
  std::ofstream(file) << std::ifstream("/etc/ssl/certs/ca-certificates.crt").rdbuf()
                      << endpoint.certificate();
  const llm::LLMClient client(
      {.base_url = endpoint.tls_url() + "/once/1", .model = "m", .api_key = "k", .stream = false},
      {.transport = http::make_transport({.ca_file = file.string()})});
  std::ignore = client.chat(MESSAGES);
  std::filesystem::remove(file);
  std::vector<double> costs(CALLS);
  for (double& cost : costs) {
    std::jthread([&] {
      std::ignore = client.chat(MESSAGES);
      cost = 1e3 * cpu_s();
    });
  }
  return {.name = "tls_new", .ours = median(costs), .unit = "ms", .limit = 2};
}

}  // namespace

void measure_connections(const Endpoint& endpoint, const Wanted& wanted, const Report& report) {
  if (wanted("connections_stream")) count_of_streams(endpoint, report);
  if (wanted("connections_threads")) measure_threads(endpoint, report);
  if (wanted("tls_new")) report(measure_tls(endpoint));
}

}  // namespace bench
