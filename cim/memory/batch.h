// The batch: memory for one tree of objects, allocated by moving a pointer through pages and freed
// all at once. A message and everything that it points to lie in one batch, so it can be shipped to
// another process page by page, and its pointers corrected there.
//
// Invariants:
// 1. `pages` lists every block of the batch, newest first. Each begins with a BatchPage, which its
//    payload follows.
// 2. A regular page is a heap block of 1024 bytes. [nextFree, pageEnd) is the free rest of the
//    newest one; the free rest of an older one is not used any more.
// 3. A request that no page serves has a standalone block. Only such a block can be released early.
// 4. A batch of Batch_Create or Batch_FromPageSizes lies in one of its own blocks: Batch_Destroy
//    frees its record too.
//
// A batch has no lock: one thread at a time uses it and everything in it.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>

namespace stewardry::cim {

struct BatchPage {
  BatchPage* next;
  std::uint32_t standalone : 1;  // 1: made for one request; 0: a regular page
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
  std::uint64_t pageLimit;  // once this many are made, each request gets a standalone block
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

// Seven words: six narrow texts, each of which may be null, and a number.
struct TextRecord {
  const char* texts[5];
  std::uint64_t number;
  const char* last;
};
static_assert(sizeof(TextRecord) == 56);

// The page limit of every batch that the library creates for itself.
constexpr std::uint64_t kNoPageLimit = 0xFFFFFFFF;
// The largest request, rounded up, that a page serves.
constexpr std::size_t kMaxInPage = 512;
constexpr std::size_t kPagePayload = 1008;
// The largest payload whose size fits a BatchPage.
constexpr std::size_t kMaxPayload = 0x7FFFFFF8;

// Returns a new batch, which lies in its own first block; null if the allocation fails. The caller
// ends it with Batch_Destroy.
Batch* Batch_Create(std::uint64_t pageLimit);

// Initializes a record of the caller's as a batch without blocks.
void Batch_Init(Batch* batch, std::uint64_t pageLimit);

// Does the same, and serves the first small requests from `size` bytes of `buffer`, which must be
// aligned to 8. The buffer stays the caller's and must outlive what was allocated from it.
void Batch_InitOnBuffer(Batch* batch, void* buffer, std::size_t size, std::uint64_t pageLimit);

// Frees every block, and with them the batch itself if it lies in one. A record of the caller's has
// no blocks afterwards and may be used again.
void Batch_Destroy(Batch* batch);

// Serves Batch_Alloc when a new block is needed.
void* Batch_AllocBlock(Batch* batch, std::size_t size);

// Returns `size` bytes, rounded up to a multiple of 8 and aligned to 8, not zeroed; null if the
// allocation fails or for more than kMaxPayload bytes. For 0 bytes it takes nothing and returns the
// next free address, which is null in a batch without pages.
inline void* Batch_Alloc(Batch* batch, std::size_t size) {
  const std::size_t rounded = (size + 7) & ~std::size_t{7};
  if (size > kMaxInPage || rounded > static_cast<std::size_t>(batch->pageEnd - batch->nextFree))
    return Batch_AllocBlock(batch, size);
  std::uint8_t* block = batch->nextFree;
  assert(reinterpret_cast<std::uintptr_t>(block) % 8 == 0);
  batch->nextFree += rounded;
  return block;
}

// Does the same, and zeroes the bytes.
void* Batch_AllocZero(Batch* batch, std::size_t size);

// Frees a standalone block of the batch. Ignores any other pointer, also a null one and one that is
// not of this batch. Its cost is linear in the number of blocks.
void Batch_Release(Batch* batch, const void* pointer);

// Returns `newSize` bytes with the content of the first `oldSize` of `old`, cut or padded with
// zeros. The old block stays in the batch. Returns null if the allocation fails. A null `old` makes
// it equivalent to Batch_Alloc.
void* Batch_Realloc(Batch* batch, const void* old, std::size_t oldSize, std::size_t newSize);

// Return a copy with its terminator; null if the allocation fails. All but the first also return
// null for a null argument.
char16_t* Batch_DupText(Batch* batch, const char16_t* text);
char* Batch_DupNarrow(Batch* batch, const char* text);
// Sign-extends each byte to a unit: 0xE9 becomes 0xFFE9.
char16_t* Batch_WidenText(Batch* batch, const char* text);
// Cuts each unit to its low byte.
char* Batch_NarrowText(Batch* batch, const char16_t* text);
TextRecord* Batch_CloneTextRecord(Batch* batch, const TextRecord* record);

// Returns the number of blocks.
std::size_t Batch_PageCount(const Batch* batch);

// Returns the payload of the block at `index`, counted from the newest; null past the end.
void* Batch_PageAt(const Batch* batch, std::size_t index);

// Fills `list`, which must have room for Batch_PageCount entries, newest block first, and returns
// their number. The page being filled has the size in use, the others the size of their payload.
std::size_t Batch_PageList(const Batch* batch, BatchPageInfo* list);

// Prepares the receiving side of a shipment: adds a block of each entry's `size` to *batch, which
// is null or a batch, in the order of the list. Ignores `data`. Returns false, with *batch
// destroyed and null, if a size is above kMaxPayload or an allocation fails. An empty list creates
// no batch. The sizes decide how much memory is allocated: the caller must bound those that come
// from outside.
bool Batch_FromPageSizes(Batch** batch, const BatchPageInfo* list, std::size_t count);

// Replaces *pointer, an address at the sender, by the address of the same byte here. `list`
// describes the pages at the sender; blocks added after the shipped ones are skipped. Returns
// false, with *pointer unchanged, for an address in none of the pages.
bool Batch_TranslatePointer(const Batch* batch, const BatchPageInfo* list, std::size_t count,
                            void** pointer);

// Does the same, and stores the number of bytes from there to the end of the page in *left.
bool Batch_TranslateRange(const Batch* batch, const BatchPageInfo* list, std::size_t count,
                          void** pointer, std::size_t* left);

// Takes ownership of a block of Heap_Allocate that begins with a BatchPage whose `size` is set.
void Batch_AttachPage(Batch* batch, BatchPage* page);

}  // namespace stewardry::cim
