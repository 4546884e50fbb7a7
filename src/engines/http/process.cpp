#include "engines/http/process.hpp"

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <tuple>

#include <openssl/ssl.h>
#include <pthread.h>
#include <simdjson.h>

#include "tovren_mapstead/engines/http/errors.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// All of these are constants at load, so they work before `main` and to the very end.
std::atomic<int> calls = 0;
std::atomic<int> lookups = 0;
std::atomic<bool> ending = false;
std::atomic<unsigned> generation = 0;
std::atomic<bool> prepared = false;
std::atomic<bool> exit_watched = false;

// Threads hold it for reading, a fork for writing. A waiting fork goes first, or many busy threads
// could hold it off for good.
pthread_rwlock_t fork_lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
thread_local int guards = 0;  // a thread that waits for itself would wait forever

void before_fork() {
  if (guards > 0) return;
  constexpr std::chrono::milliseconds PATIENCE{100};
  const auto end = std::chrono::steady_clock::now() + PATIENCE;
  for (;;) {
    pthread_rwlock_wrlock(&fork_lock);
    if (lookups == 0 || std::chrono::steady_clock::now() >= end) return;
    pthread_rwlock_unlock(&fork_lock);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void after_fork_in_parent() {
  if (guards == 0) pthread_rwlock_unlock(&fork_lock);
}

void after_fork_in_child() {
  // The lock knows its owner by the parent's thread number, so it is made anew.
  fork_lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
  if (guards > 0) pthread_rwlock_rdlock(&fork_lock);
  calls = 0;
  lookups = 0;
  ++generation;
}

void end_calls() {
  constexpr std::chrono::seconds PATIENCE{1};
  ending = true;
  const auto end = std::chrono::steady_clock::now() + PATIENCE;
  while (calls > 0 && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void prepare() {
  if (prepared.exchange(true)) return;
  pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
  // OpenSSL never works again if it runs out of memory while it starts, and a context is what loads
  // the last of its parts.
  OPENSSL_init_ssl(0, nullptr);
  SSL_CTX_free(SSL_CTX_new(TLS_client_method()));
  // simdjson ends the process if it runs out of memory when it is first used.
  std::ignore = simdjson::get_active_implementation()->name();
}

// When the library is loaded: there is memory then, and no thread that could fork in the middle.
[[maybe_unused]] const bool LOADED = (prepare(), true);

}  // namespace

CallGuard::CallGuard() {
  prepare();  // a call before `main` may come first
  // Exit handlers run in reverse, so this one runs before those of all that calls need.
  if (!exit_watched.exchange(true)) std::atexit(end_calls);
  check_process();
  ++calls;
}

CallGuard::~CallGuard() {
  --calls;
}

void check_process() {
  if (ending) throw Stopped("the process ends");
}

ForkGuard::ForkGuard() noexcept {
  if (guards++ == 0) pthread_rwlock_rdlock(&fork_lock);
}

ForkGuard::~ForkGuard() {
  if (--guards == 0) pthread_rwlock_unlock(&fork_lock);
}

LookupGuard::LookupGuard() noexcept {
  const ForkGuard guard;
  ++lookups;
}

LookupGuard::~LookupGuard() {
  --lookups;
}

unsigned fork_generation() noexcept {
  return generation.load(std::memory_order_relaxed);
}

}  // namespace tovren_mapstead::engines::http
