// malloc and realloc that count and call the C library's.
#include "bench/packing/heap_calls.h"

#include <atomic>
#include <cstddef>

namespace {
std::atomic<std::uint64_t> gCalls{0};
void Count() { gCalls.fetch_add(1, std::memory_order_relaxed); }
}  // namespace

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) {
  Count();
  return __libc_malloc(size);
}
void* realloc(void* block, std::size_t size) {
  Count();
  return __libc_realloc(block, size);
}
}

namespace bench {
std::uint64_t HeapCalls() { return gCalls.load(std::memory_order_relaxed); }
}  // namespace bench
