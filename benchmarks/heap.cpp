// Prints how much heap a streamed call has in use at its peak, in bytes, less its answer.
#include <atomic>
#include <cstddef>
#include <iostream>

#include <dlfcn.h>
#include <malloc.h>

#include "tovren_mapstead/engines/llm.hpp"

namespace {

std::atomic<std::size_t> in_use = 0;
std::atomic<std::size_t> peak = 0;

void* count(void* block) {
  const std::size_t now = in_use += malloc_usable_size(block);
  std::size_t most = peak;
  while (now > most && !peak.compare_exchange_weak(most, now)) {
  }
  return block;
}

void forget(void* block) {
  in_use -= malloc_usable_size(block);
}

}  // namespace

// The C library's own allocator under names that stay when these functions take its place.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

void* malloc(std::size_t size) {
  return count(__libc_malloc(size));
}

void* calloc(std::size_t members, std::size_t size) {
  return count(__libc_calloc(members, size));
}

void* realloc(void* block, std::size_t size) {
  const std::size_t before = malloc_usable_size(block);
  void* const moved = __libc_realloc(block, size);
  if (moved != nullptr) in_use -= before;
  return moved != nullptr ? count(moved) : moved;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return count(__libc_memalign(alignment, size));
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  *block = count(__libc_memalign(alignment, size));
  return *block != nullptr ? 0 : 12;  // ENOMEM
}

void free(void* block) {
  forget(block);
  __libc_free(block);
}
}

int main(int argc, char** argv) {
  namespace llm = tovren_mapstead::engines::llm;
  if (argc != 2) return 2;
  const llm::LLMClient small({.base_url = std::string(argv[1]) + "/whole/1",
                              .model = "m",
                              .api_key = "k",
                              .stream = false});
  const llm::Messages messages{llm::user("hello")};
  std::ignore = small.chat(messages);  // for what is made once a process
  const llm::LLMClient client(
      {.base_url = std::string(argv[1]) + "/stream/20000", .model = "m", .api_key = "k"});
  const std::size_t before = in_use;
  peak = before;
  const llm::LLMResult result = client.chat(messages);
  std::cout << peak - before - result.content().size() << '\n';
}
