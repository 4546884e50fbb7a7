#include "memory/memory.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <curl/curl.h>
#include <malloc.h>

namespace {

std::atomic<std::ptrdiff_t> used = 0;
std::atomic<std::ptrdiff_t> most = 0;
thread_local std::ptrdiff_t own = 0;
thread_local std::size_t until_failure = 0;  // 0: none is to fail
thread_local bool has_failed = false;

// `sign`: 1 for a block that comes into use, -1 for one that goes out of it.
void count(void* block, int sign) {
  const auto size = sign * static_cast<std::ptrdiff_t>(malloc_usable_size(block));
  own += size;
  const std::ptrdiff_t now = used += size;
  for (std::ptrdiff_t seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
  }
}

bool refused() {
  if (until_failure == 0) return false;
  --until_failure;
  if (until_failure > 0) return false;
  has_failed = true;
  return true;
}

void* allocate(std::size_t size) {
  void* const block = refused() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (block != nullptr) count(block, 1);
  return block;
}

void release(void* block) {
  if (block == nullptr) return;
  count(block, -1);
  std::free(block);
}

void* allocate_again(void* block, std::size_t size) {
  if (block == nullptr) return allocate(size);
  if (refused()) return nullptr;
  count(block, -1);
  void* const moved = std::realloc(block, size);
  count(moved != nullptr ? moved : block, 1);
  return moved;
}

char* copy(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  void* const block = allocate(size);
  return block == nullptr ? nullptr : static_cast<char*>(std::memcpy(block, text, size));
}

void* allocate_zeros(std::size_t count, std::size_t size) {
  void* const block = allocate(count * size);
  return block == nullptr ? nullptr : std::memset(block, 0, count * size);
}

// Before anybody else: libcurl keeps the functions that it was given first.
[[maybe_unused]] const CURLcode READY = curl_global_init_mem(CURL_GLOBAL_DEFAULT, allocate, release,
                                                             allocate_again, copy, allocate_zeros);

}  // namespace

namespace memory {

std::ptrdiff_t forget_peak() {
  most = used.load();
  return most;
}

std::ptrdiff_t peak() {
  return most;
}

std::ptrdiff_t balance() {
  return own;
}

bool fail(std::size_t nth) {
  until_failure = nth;
  return std::exchange(has_failed, false);
}

}  // namespace memory

// The array forms call these. A sanitizer's nothrow form would not.
void* operator new(std::size_t size) {
  void* const block = allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}

void operator delete(void* block) noexcept {
  release(block);
}

void operator delete(void* block, std::size_t) noexcept {
  release(block);
}
