// Process-wide state: values that are made once, `fork`, and `exit`.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Marks the calling thread as inside a call. `exit` stops such calls and waits up to 1 s for them
/// to end.
class TOVREN_EXPORT CallGuard {
 public:
  /// Throws Stopped if the process is exiting.
  CallGuard();
  CallGuard(const CallGuard&) = delete;
  CallGuard& operator=(const CallGuard&) = delete;
  ~CallGuard();
};

/// Throws Stopped if the process is exiting. Call it in every wait.
TOVREN_EXPORT void check_process();

/// Delays `fork` on other threads while it exists. Hold it while you change state that a child must
/// not inherit half changed: a lock, or the internals of libcurl and OpenSSL. May be nested. Never
/// hold it during a wait.
class TOVREN_EXPORT ForkGuard {
 public:
  ForkGuard() noexcept;
  ForkGuard(const ForkGuard&) = delete;
  ForkGuard& operator=(const ForkGuard&) = delete;
  ~ForkGuard();
};

/// Delays `fork` for up to 100 ms during a name look-up, which holds locks of the C library but may
/// hang.
class LookupGuard {
 public:
  LookupGuard() noexcept;
  LookupGuard(const LookupGuard&) = delete;
  LookupGuard& operator=(const LookupGuard&) = delete;
  ~LookupGuard();
};

/// Returns the number of forks between the first process and this one. State from another
/// generation belongs to a parent: its locks and threads do not work here.
[[nodiscard]] TOVREN_EXPORT unsigned fork_generation() noexcept;

/// A value that is made once for each process, when first used. Works in forked children and, as a
/// constant-initialised global, before `main` and during `exit`. Only `discard` destroys the value.
template <class Value>
class Once {
 public:
  /// Returns the value; calls `make()` if there is none. Lock-free: threads that race make a value
  /// each, and one is kept.
  template <class Make>
  Value& get(Make make) {
    Entry* entry = _entry.load(std::memory_order_acquire);
    if (entry != nullptr && entry->generation == fork_generation()) return entry->value;
    auto fresh = std::make_unique<Entry>(fork_generation(), make);
    // A parent's value is not destroyed: threads that do not exist here may hold its locks.
    if (_entry.compare_exchange_strong(entry, fresh.get())) return fresh.release()->value;
    return entry->value;
  }

  /// Destroys the value, unless it belongs to a parent. No thread may use it afterwards.
  void discard() noexcept {
    Entry* const entry = _entry.exchange(nullptr);
    if (entry != nullptr && entry->generation == fork_generation()) delete entry;
  }

 private:
  struct Entry {
    template <class Make>
    Entry(unsigned generation_in, Make& make) : generation(generation_in), value(make()) {}

    const unsigned generation;
    Value value;
  };

  std::atomic<Entry*> _entry = nullptr;
};

}  // namespace tovren_mapstead::engines::http
