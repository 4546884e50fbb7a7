// The process around the calls: what it makes once, its forks, and its end.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Held by a thread for as long as it is inside the engine. Once `exit` has begun, those calls are
/// stopped, and the process waits up to a second for their threads to leave.
class TOVREN_EXPORT CallGuard {
 public:
  /// Throws Stopped when the process is ending.
  CallGuard();
  CallGuard(const CallGuard&) = delete;
  CallGuard& operator=(const CallGuard&) = delete;
  ~CallGuard();
};

/// Throws Stopped when the process is ending. To be called in every wait.
TOVREN_EXPORT void check_process();

/// Held while a thread changes what a fork must not copy half changed: a lock, or the insides of
/// libcurl and OpenSSL. `fork` waits until no other thread holds one. May be nested; held for short
/// steps only, never during a wait.
class TOVREN_EXPORT ForkGuard {
 public:
  ForkGuard() noexcept;
  ForkGuard(const ForkGuard&) = delete;
  ForkGuard& operator=(const ForkGuard&) = delete;
  ~ForkGuard();
};

/// Held during a name look-up, which may wait long for a server but holds locks of the C library in
/// between: `fork` waits for its end for up to 100 ms.
class LookupGuard {
 public:
  LookupGuard() noexcept;
  LookupGuard(const LookupGuard&) = delete;
  LookupGuard& operator=(const LookupGuard&) = delete;
  ~LookupGuard();
};

/// How many forks lie between the first process and this one. State that was made under another
/// number belongs to a parent, and its locks and threads do not work here.
[[nodiscard]] TOVREN_EXPORT unsigned fork_generation() noexcept;

/// A value that is made when first used, once for each process: usable in forked children and, as a
/// constant-initialised global, before `main` and after `exit` has begun. Nothing destroys it
/// unless its owner calls `discard`.
template <class Value>
class Once {
 public:
  /// The value; `make()` returns it by value if there is none. Lock-free: threads that race make
  /// one each, and one of these is kept.
  template <class Make>
  Value& get(Make make) {
    Entry* entry = _entry.load(std::memory_order_acquire);
    if (entry != nullptr && entry->generation == fork_generation()) return entry->value;
    auto fresh = std::make_unique<Entry>(fork_generation(), make);
    // A parent's value is left alone: its locks may be held by threads that do not exist here.
    if (_entry.compare_exchange_strong(entry, fresh.get())) return fresh.release()->value;
    return entry->value;
  }

  /// Destroys the value, unless it belongs to a parent. No thread may use it any more.
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
