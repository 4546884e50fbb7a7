#include "engines/http/under_way.hpp"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <openssl/ssl.h>
#include <pthread.h>
#include <simdjson.h>

#include "tovren_mapstead/engines/http/errors.hpp"

#include "engines/http/time.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// Usable to the very end: nothing destroys them.
std::atomic<int> calls = 0;
std::atomic<bool> ending = false;

// simdjson makes what it keeps when first used, and ends the process where there is no memory then:
// so it is used when this library is loaded.
[[maybe_unused]] const std::string JSON_PARSER = simdjson::get_active_implementation()->name();

// Made after all that calls need, so that it is destroyed before.
class Process {
 public:
  Process() {
    OPENSSL_init_ssl(0, nullptr);
    // In a child there are no other threads.
    pthread_atfork(nullptr, nullptr, [] { calls = 0; });
  }

  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  ~Process() {
    constexpr std::chrono::seconds PATIENCE{1};
    ending = true;
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (calls > 0 && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
};

}  // namespace

UnderWay::UnderWay() {
  static const Process process;
  check_process();
  ++calls;
}

UnderWay::~UnderWay() {
  --calls;
}

void check_process() {
  if (ending) throw Stopped("the process ends");
}

}  // namespace tovren_mapstead::engines::http
