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

// All are constant-initialised, so they work before `main` and during `exit`.
std::atomic<int> calls = 0;
std::atomic<int> lookups = 0;
std::atomic<bool> ending = false;
std::atomic<unsigned> generation = 0;
std::atomic<bool> prepared = false;
std::atomic<bool> exit_watched = false;

// Threads lock it for reading, `fork` for writing. Writers go first, or busy threads could delay a
// fork forever.
pthread_rwlock_t fork_lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
thread_local int guards = 0;  // of this thread, which must not wait for itself

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
  // The lock stores the parent's thread number as its owner, so it is initialised again.
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
  // OpenSSL stays unusable if it runs out of memory during its start, which the first context
  // completes.
  OPENSSL_init_ssl(0, nullptr);
  SSL_CTX_free(SSL_CTX_new(TLS_client_method()));
  // simdjson aborts if it runs out of memory at its first use.
  std::ignore = simdjson::get_active_implementation()->name();
}

// Runs when the library is loaded: there is memory then, and no other thread that could fork.
[[maybe_unused]] const bool LOADED = (prepare(), true);

}  // namespace

CallGuard::CallGuard() {
  prepare();  // a call before `main` may precede LOADED
  // Exit handlers run in reverse order, so this one runs before those of the libraries that calls
  // use.
  if (!exit_watched.exchange(true)) std::atexit(end_calls);
  check_process();
  ++calls;
}

CallGuard::~CallGuard() {
  --calls;
}

void check_process() {
  if (ending) throw Stopped("the process is exiting");
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
