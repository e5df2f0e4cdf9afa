#include "cim/memory/heap.h"

#include <array>
#include <atomic>
#include <cassert>
#include <cstdlib>

namespace stewardry::cim {

namespace {

// None under AddressSanitizer, which could not report the use of a freed block that is kept.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kKeptBlocks = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr std::size_t kKeptBlocks = 0;
#else
constexpr std::size_t kKeptBlocks = 128;
#endif
#else
constexpr std::size_t kKeptBlocks = 128;  // of each size: the pages of one large message
#endif

// Relaxed: the test that arms the gate also makes the requests, or joins the threads that do.
std::atomic<bool> gIsArmed{false};
std::atomic<std::uint64_t> gRequests{0};
std::atomic<std::uint64_t> gFailAt{0};

bool IsRefused() {
  if (!gIsArmed.load(std::memory_order_relaxed)) return false;
  return gRequests.fetch_add(1, std::memory_order_relaxed) + 1 ==
         gFailAt.load(std::memory_order_relaxed);
}

// Freed blocks of one size. A thread that finds them busy uses the heap instead of waiting. They
// are not kept by thread, since not every runtime destroys a thread's objects before it frees their
// memory.
class KeptBlocks {
 public:
  void* Take() {
    if (!TryLock()) return nullptr;
    void* block = count_ == 0 ? nullptr : blocks_[--count_];
    Unlock();
    return block;
  }
  bool Keep(void* block) {
    if (!TryLock()) return false;
    const bool hasRoom = count_ < kKeptBlocks;
    if (hasRoom) blocks_[count_++] = block;
    Unlock();
    return hasRoom;
  }

 private:
  // Acquire and release: each holder sees the changes of the one before.
  bool TryLock() { return !isBusy_.exchange(true, std::memory_order_acquire); }
  void Unlock() { isBusy_.store(false, std::memory_order_release); }

  std::atomic<bool> isBusy_{false};
  std::size_t count_ = 0;
  std::array<void*, kKeptBlocks + 1> blocks_{};  // + 1, since an array has at least one
};

constinit KeptBlocks gKeptPages;
constinit KeptBlocks gKeptBodies;

KeptBlocks& KeptOf(std::size_t size) {
  assert(size == kPageBlockSize || size == kBodyBlockSize);
  return size == kPageBlockSize ? gKeptPages : gKeptBodies;
}

}  // namespace

void* Heap_Allocate(std::size_t size) { return IsRefused() ? nullptr : std::malloc(size); }

void* Heap_Reallocate(void* block, std::size_t size) {
  return IsRefused() ? nullptr : std::realloc(block, size);
}

void Heap_Free(void* block) { std::free(block); }

void* Heap_AllocateKept(std::size_t size) {
  if (IsRefused()) return nullptr;
  void* kept = KeptOf(size).Take();
  return kept != nullptr ? kept : std::malloc(size);
}

void Heap_FreeKept(void* block, std::size_t size) {
  if (block != nullptr && !KeptOf(size).Keep(block)) std::free(block);
}

namespace heap_gate {

void Arm(std::uint64_t failAt) {
  gRequests.store(0, std::memory_order_relaxed);
  gFailAt.store(failAt, std::memory_order_relaxed);
  gIsArmed.store(true, std::memory_order_relaxed);
}

std::uint64_t Requests() { return gRequests.load(std::memory_order_relaxed); }

void Disarm() { gIsArmed.store(false, std::memory_order_relaxed); }

}  // namespace heap_gate

}  // namespace stewardry::cim
