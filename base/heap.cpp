// malloc behind a gate, and the pages that a thread keeps.
#include "base/heap.h"

#include <array>
#include <atomic>
#include <cstdlib>

namespace stewardry {

namespace {

// A freed page that is used once more is what a sanitizer must see, so none is kept under one.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kKeptPages = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr std::size_t kKeptPages = 0;
#else
constexpr std::size_t kKeptPages = 128;
#endif
#else
constexpr std::size_t kKeptPages = 128;  // 128 KiB a thread: the pages of one large message
#endif

// Relaxed: the test that arms the gate makes the requests too, or waits for the threads that do.
std::atomic<bool> gIsArmed{false};
std::atomic<std::uint64_t> gRequests{0};
std::atomic<std::uint64_t> gFailAt{0};

bool IsRefused() {
  if (!gIsArmed.load(std::memory_order_relaxed)) return false;
  return gRequests.fetch_add(1, std::memory_order_relaxed) + 1 ==
         gFailAt.load(std::memory_order_relaxed);
}

class KeptPages {
 public:
  KeptPages() = default;
  KeptPages(const KeptPages&) = delete;
  KeptPages& operator=(const KeptPages&) = delete;
  ~KeptPages() {
    while (void* page = Take()) std::free(page);
    isOver_ = true;  // objects that live longer than this one may still free pages
  }
  void* Take() { return count_ == 0 ? nullptr : pages_[--count_]; }
  bool Keep(void* page) {
    if (isOver_ || count_ == kKeptPages) return false;
    pages_[count_++] = page;
    return true;
  }

 private:
  std::size_t count_ = 0;
  bool isOver_ = false;
  std::array<void*, kKeptPages + 1> pages_;  // + 1, since no array is empty
};

thread_local KeptPages gKeptPages;

}  // namespace

void* Heap_Allocate(std::size_t size) { return IsRefused() ? nullptr : std::malloc(size); }

void* Heap_Reallocate(void* block, std::size_t size) {
  return IsRefused() ? nullptr : std::realloc(block, size);
}

void Heap_Free(void* block) { std::free(block); }

void* Heap_AllocatePage() {
  if (IsRefused()) return nullptr;
  void* kept = gKeptPages.Take();
  return kept != nullptr ? kept : std::malloc(kPageBlockSize);
}

void Heap_FreePage(void* block) {
  if (block != nullptr && !gKeptPages.Keep(block)) std::free(block);
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

}  // namespace stewardry
