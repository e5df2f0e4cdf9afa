// The batch: memory for one tree of objects, handed out by moving a pointer through pages and freed
// all at once. A message and everything that hangs from it lie in one batch, so it can be shipped
// to another process page by page, and its pointers corrected there.
//
// Invariants:
// 1. `pages` lists every block of the batch, newest first; each begins with a BatchPage, and its
//    payload follows at once.
// 2. A regular page is a heap block of 1024 bytes. [nextFree, pageEnd) is the free rest of the
//    newest of them; what an older one had left is given up.
// 3. A request that no page serves has a block of its own, which alone can be released early.
// 4. A batch made here lies in one of its own blocks: after Batch_Destroy its record is gone.
//
// A batch has no lock: one thread at a time uses it, and whatever lies in it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace stewardry::cim {

struct BatchPage {
  BatchPage* next;
  std::uint32_t standalone : 1;  // 1: made for one request; 0: a page
  std::uint32_t size : 31;       // bytes of payload
  std::uint32_t reserved;        // 0
};
static_assert(sizeof(BatchPage) == 16 && alignof(BatchPage) == 8);
static_assert(offsetof(BatchPage, reserved) == 12);

struct Batch {
  std::uint8_t* nextFree;
  std::uint8_t* pageEnd;
  BatchPage* pages;
  std::uint64_t pageCount;  // regular pages made so far
  std::uint64_t pageLimit;  // with this many made, each request gets a block of its own
};
static_assert(sizeof(Batch) == 40 && offsetof(Batch, nextFree) == 0 &&
              offsetof(Batch, pageEnd) == 8 && offsetof(Batch, pages) == 16 &&
              offsetof(Batch, pageCount) == 24 && offsetof(Batch, pageLimit) == 32);

// An element of a page list.
struct BatchPageInfo {
  void* data;          // the payload
  std::uint64_t size;  // bytes of it in use
};
static_assert(sizeof(BatchPageInfo) == 16);

// Seven words: six narrow texts, each of which may be empty, and a number.
struct TextRecord {
  const char* texts[5];
  std::uint64_t number;
  const char* last;
};
static_assert(sizeof(TextRecord) == 56);

// The limit of every batch that the library makes for itself.
constexpr std::uint64_t kNoPageLimit = 0xFFFFFFFF;
// The largest request, rounded, that a page serves.
constexpr std::size_t kMaxInPage = 512;
constexpr std::size_t kPagePayload = 1008;
// The largest payload whose size a BatchPage can tell.
constexpr std::size_t kMaxPayload = 0x7FFFFFF8;

// A batch in its own first block; empty when the heap fails. Ends with Batch_Destroy.
Batch* Batch_Create(std::uint64_t pageLimit);

// Sets up a record of the caller's, which has nothing in it.
void Batch_Init(Batch* batch, std::uint64_t pageLimit);

// The same, and lets the first small requests be served from `size` bytes of `buffer`, aligned
// to 8. The buffer stays the caller's and must outlive what was served from it.
void Batch_InitOnBuffer(Batch* batch, void* buffer, std::size_t size, std::uint64_t pageLimit);

// Frees every block, and with it a batch that lies in one. A record of the caller's is left without
// blocks and may be used again.
void Batch_Destroy(Batch* batch);

// The part of Batch_Alloc that needs a new block.
void* Batch_AllocBlock(Batch* batch, std::size_t size);

// `size` bytes, rounded up to a multiple of 8 and aligned to 8, not zeroed; empty when the heap
// fails or for more than kMaxPayload bytes. 0 bytes give the next free place, which is empty in a
// batch without pages, and take nothing.
inline void* Batch_Alloc(Batch* batch, std::size_t size) {
  const std::size_t rounded = (size + 7) & ~std::size_t{7};
  if (size > kMaxInPage || rounded > static_cast<std::size_t>(batch->pageEnd - batch->nextFree))
    return Batch_AllocBlock(batch, size);
  std::uint8_t* block = batch->nextFree;
  batch->nextFree += rounded;
  return block;
}

// The same, zeroed.
void* Batch_AllocZero(Batch* batch, std::size_t size);

// Frees a block that was made for one request alone. Anything else, also an empty or strange
// pointer, is left as it is. Takes a step for each block of the batch.
void Batch_Release(Batch* batch, const void* pointer);

// `newSize` bytes with the content of the first `oldSize` of `old`, cut or padded with zeros. The
// old block stays in the batch. Empty when the heap fails. An empty `old` is Batch_Alloc.
void* Batch_Realloc(Batch* batch, const void* old, std::size_t oldSize, std::size_t newSize);

// Copies with their terminator; empty when the heap fails. All but the first also for an empty
// argument.
char16_t* Batch_DupText(Batch* batch, const char16_t* text);
char* Batch_DupNarrow(Batch* batch, const char* text);
// Each byte sign-extended to a unit: 0xE9 becomes 0xFFE9.
char16_t* Batch_WidenText(Batch* batch, const char* text);
// Each unit cut to its low byte.
char* Batch_NarrowText(Batch* batch, const char16_t* text);
TextRecord* Batch_CloneTextRecord(Batch* batch, const TextRecord* record);

// The number of blocks.
std::size_t Batch_PageCount(const Batch* batch);

// The payload of the block at `index` from the newest; empty past the end.
void* Batch_PageAt(const Batch* batch, std::size_t index);

// Fills `list`, which has room for Batch_PageCount entries, newest block first, and gives the
// count. The page that is being filled has the size in use; the others have their payload's.
std::size_t Batch_PageList(const Batch* batch, BatchPageInfo* list);

// For the far end of a shipment: adds a block of each entry's `size` to *batch, which is empty or a
// batch, so that the blocks stand in the order of the list; `data` isn't read. False, with *batch
// destroyed and empty, when a size can't be or the heap fails. An empty list makes no batch. The
// caller bounds what it takes from outside: memory is taken as the sizes say.
bool Batch_FromPageSizes(Batch** batch, const BatchPageInfo* list, std::size_t count);

// Replaces *pointer, an address at the sender, by the address of the same byte here. `list` has the
// pages as they lay at the sender; blocks that were added since the pages came are skipped. False,
// with *pointer as it was, for an address in none of them.
bool Batch_TranslatePointer(const Batch* batch, const BatchPageInfo* list, std::size_t count,
                            void** pointer);

// The same, and *left is the number of bytes from there to the end of the page.
bool Batch_TranslateRange(const Batch* batch, const BatchPageInfo* list, std::size_t count,
                          void** pointer, std::size_t* left);

// Takes over a block of Heap_Allocate that begins with a BatchPage whose `size` is set.
void Batch_AttachPage(Batch* batch, BatchPage* page);

}  // namespace stewardry::cim
