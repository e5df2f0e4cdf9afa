#include "cim/memory/batch.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <string>

#include "cim/memory/heap.h"

namespace stewardry::cim {

namespace {

static_assert(sizeof(BatchPage) + kPagePayload == kPageBlockSize);

std::uint8_t* PayloadOf(BatchPage* page) { return reinterpret_cast<std::uint8_t*>(page + 1); }

std::uint8_t* EndOfPage(BatchPage* page) {
  return reinterpret_cast<std::uint8_t*>(page) + kPageBlockSize;
}

constexpr std::size_t RoundUp(std::size_t size) { return (size + 7) & ~std::size_t{7}; }

BatchPage* AddBlock(Batch* batch, void* block, std::size_t payload, bool isStandalone) {
  assert(payload <= kMaxPayload);
  auto* page = static_cast<BatchPage*>(block);
  *page = {batch->pages, isStandalone, static_cast<std::uint32_t>(payload) & 0x7FFFFFFF, 0};
  batch->pages = page;
  return page;
}

// Returns whether a standalone payload fits one of the heap's kept blocks.
constexpr bool IsBody(std::size_t rounded) {
  return rounded > kPagePayload && sizeof(BatchPage) + rounded <= kBodyBlockSize;
}

void* AllocStandalone(Batch* batch, std::size_t rounded) {
  void* block = IsBody(rounded) ? Heap_AllocateKept(kBodyBlockSize)
                                : Heap_Allocate(sizeof(BatchPage) + rounded);
  return block == nullptr ? nullptr : PayloadOf(AddBlock(batch, block, rounded, true));
}

void* AllocFromNewPage(Batch* batch, std::size_t rounded) {
  assert(rounded <= kMaxInPage && batch->pageCount < batch->pageLimit);
  void* block = Heap_AllocateKept(kPageBlockSize);
  if (block == nullptr) return nullptr;
  // The unused rest of the old page leaves the process when the batch is shipped.
  if (batch->nextFree != batch->pageEnd)
    std::memset(batch->nextFree, 0, static_cast<std::size_t>(batch->pageEnd - batch->nextFree));
  BatchPage* page = AddBlock(batch, block, kPagePayload, false);
  batch->nextFree = PayloadOf(page) + rounded;
  batch->pageEnd = EndOfPage(page);
  ++batch->pageCount;
  return PayloadOf(page);
}

// A block with the payload size of a page has the size of one, also one that was attached.
void FreeBlock(BatchPage* page) {
  if (!page->standalone && page->size == kPagePayload) return Heap_FreeKept(page, kPageBlockSize);
  if (page->standalone && IsBody(page->size)) return Heap_FreeKept(page, kBodyBlockSize);
  Heap_Free(page);
}

// Returns a block whose bytes beyond `size`, up to the multiple of 8, are zero, since they are
// shipped too. The caller fills the others.
void* AllocWithFiller(Batch* batch, std::size_t size) {
  auto* block = static_cast<std::uint8_t*>(Batch_Alloc(batch, size));
  if (block != nullptr && size % 8 != 0) std::memset(block + RoundUp(size) - 8, 0, 8);
  return block;
}

template <class To, class From>
To* CopyUnits(Batch* batch, const From* text) {
  const std::size_t count = std::char_traits<From>::length(text) + 1;
  auto* copy = static_cast<To*>(AllocWithFiller(batch, count * sizeof(To)));
  if (copy == nullptr) return nullptr;
  if constexpr (sizeof(From) == 1)  // as a signed number
    std::transform(text, text + count, copy,
                   [](From unit) { return static_cast<To>(static_cast<signed char>(unit)); });
  else
    std::transform(text, text + count, copy, [](From unit) { return static_cast<To>(unit); });
  return copy;
}

template <class Unit>
Unit* DupUnits(Batch* batch, const Unit* text) {
  assert(batch != nullptr && text != nullptr);
  const std::size_t size = (std::char_traits<Unit>::length(text) + 1) * sizeof(Unit);
  auto* copy = static_cast<Unit*>(AllocWithFiller(batch, size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

// Copies a text that may be null. Returns false if the allocation fails.
bool DupPresent(Batch* batch, const char* text, const char** copy) {
  *copy = text == nullptr ? nullptr : DupUnits(batch, text);
  return text == nullptr || *copy != nullptr;
}

// Creates a batch whose record follows the payload of its first block. The sum does not overflow,
// because a payload is at most kMaxPayload.
Batch* CreateBehindPayload(std::size_t payload, void** block) {
  assert(payload <= kMaxPayload);
  const std::size_t offset = RoundUp(sizeof(BatchPage) + payload);
  *block = Heap_Allocate(offset + sizeof(Batch));
  if (*block == nullptr) return nullptr;
  auto* batch = reinterpret_cast<Batch*>(static_cast<std::uint8_t*>(*block) + offset);
  Batch_Init(batch, kNoPageLimit);
  return batch;
}

bool AddShippedBlock(Batch** batch, std::uint64_t size) {
  if (size > kMaxPayload) return false;
  const auto payload = static_cast<std::size_t>(size);
  void* block = nullptr;
  Batch* made = *batch;
  if (made == nullptr)
    made = CreateBehindPayload(payload, &block);
  else
    block = Heap_Allocate(sizeof(BatchPage) + payload);
  if (block == nullptr) return false;
  *batch = made;
  (void)AddBlock(made, block, payload, false);
  return true;
}

}  // namespace

Batch* Batch_Create(std::uint64_t pageLimit) {
  Batch local;
  Batch_Init(&local, pageLimit);
  auto* batch = static_cast<Batch*>(Batch_Alloc(&local, sizeof(Batch)));
  if (batch != nullptr) *batch = local;  // a failed allocation left nothing to free
  return batch;
}

void Batch_Init(Batch* batch, std::uint64_t pageLimit) {
  *batch = {nullptr, nullptr, nullptr, 0, pageLimit};
}

void Batch_InitOnBuffer(Batch* batch, void* buffer, std::size_t size, std::uint64_t pageLimit) {
  assert(reinterpret_cast<std::uintptr_t>(buffer) % 8 == 0);
  Batch_Init(batch, pageLimit);
  batch->nextFree = static_cast<std::uint8_t*>(buffer);
  batch->pageEnd = batch->nextFree + size;
}

void Batch_Destroy(Batch* batch) {
  BatchPage* page = batch->pages;
  // The record may lie in one of the blocks, so it is not accessed after the first of them is
  // freed.
  Batch_Init(batch, batch->pageLimit);
  while (page != nullptr) {
    BatchPage* next = page->next;
    FreeBlock(page);
    page = next;
  }
}

void* Batch_AllocBlock(Batch* batch, std::size_t size) {
  if (size > kMaxPayload) return nullptr;
  const std::size_t rounded = RoundUp(size);
  assert(batch->nextFree <= batch->pageEnd && batch->pageCount <= batch->pageLimit);
  const bool fitsPage = rounded <= kMaxInPage && batch->pageCount < batch->pageLimit;
  return fitsPage ? AllocFromNewPage(batch, rounded) : AllocStandalone(batch, rounded);
}

void* Batch_AllocZero(Batch* batch, std::size_t size) {
  void* block = Batch_Alloc(batch, size);
  if (block != nullptr) std::memset(block, 0, RoundUp(size));
  return block;
}

void Batch_Release(Batch* batch, const void* pointer) {
  if (pointer == nullptr) return;
  for (BatchPage** link = &batch->pages; *link != nullptr; link = &(*link)->next) {
    BatchPage* page = *link;
    if (PayloadOf(page) != pointer) continue;
    if (!page->standalone) return;
    *link = page->next;
    FreeBlock(page);
    return;
  }
}

void* Batch_Realloc(Batch* batch, const void* old, std::size_t oldSize, std::size_t newSize) {
  auto* block = static_cast<std::uint8_t*>(Batch_Alloc(batch, newSize));
  if (block == nullptr || old == nullptr) return block;
  const std::size_t kept = std::min(oldSize, newSize);
  std::memcpy(block, old, kept);
  std::memset(block + kept, 0, RoundUp(newSize) - kept);
  return block;
}

char16_t* Batch_DupText(Batch* batch, const char16_t* text) { return DupUnits(batch, text); }

char* Batch_DupNarrow(Batch* batch, const char* text) {
  if (batch == nullptr || text == nullptr) return nullptr;
  return DupUnits(batch, text);
}

char16_t* Batch_WidenText(Batch* batch, const char* text) {
  if (batch == nullptr || text == nullptr) return nullptr;
  return CopyUnits<char16_t>(batch, text);
}

char* Batch_NarrowText(Batch* batch, const char16_t* text) {
  if (batch == nullptr || text == nullptr) return nullptr;
  return CopyUnits<char>(batch, text);
}

TextRecord* Batch_CloneTextRecord(Batch* batch, const TextRecord* record) {
  if (batch == nullptr || record == nullptr) return nullptr;
  auto* copy = static_cast<TextRecord*>(Batch_AllocZero(batch, sizeof(TextRecord)));
  if (copy == nullptr) return nullptr;
  for (std::size_t i = 0; i < std::size(record->texts); ++i)
    if (!DupPresent(batch, record->texts[i], &copy->texts[i])) return nullptr;
  copy->number = record->number;
  return DupPresent(batch, record->last, &copy->last) ? copy : nullptr;
}

std::size_t Batch_PageCount(const Batch* batch) {
  std::size_t count = 0;
  for (const BatchPage* page = batch->pages; page != nullptr; page = page->next) ++count;
  return count;
}

void* Batch_PageAt(const Batch* batch, std::size_t index) {
  BatchPage* page = batch->pages;
  while (page != nullptr && index-- > 0) page = page->next;
  return page == nullptr ? nullptr : PayloadOf(page);
}

std::size_t Batch_PageList(const Batch* batch, BatchPageInfo* list) {
  assert(list != nullptr || batch->pages == nullptr);
  std::size_t count = 0;
  for (BatchPage* page = batch->pages; page != nullptr; page = page->next, ++count) {
    const bool isBeingFilled = !page->standalone && batch->pageEnd == EndOfPage(page);
    list[count] = {PayloadOf(page), page->size};
    if (isBeingFilled)
      list[count].size = static_cast<std::uint64_t>(batch->nextFree - PayloadOf(page));
  }
  return count;
}

bool Batch_FromPageSizes(Batch** batch, const BatchPageInfo* list, std::size_t count) {
  for (std::size_t i = count; i-- > 0;) {
    if (AddShippedBlock(batch, list[i].size)) continue;
    if (*batch != nullptr) Batch_Destroy(*batch);
    *batch = nullptr;
    return false;
  }
  return true;
}

bool Batch_TranslatePointer(const Batch* batch, const BatchPageInfo* list, std::size_t count,
                            void** pointer) {
  std::size_t left;
  return Batch_TranslateRange(batch, list, count, pointer, &left);
}

bool Batch_TranslateRange(const Batch* batch, const BatchPageInfo* list, std::size_t count,
                          void** pointer, std::size_t* left) {
  const std::size_t blocks = Batch_PageCount(batch);
  if (blocks < count) return false;
  BatchPage* page = batch->pages;
  for (std::size_t added = blocks - count; added > 0; --added) page = page->next;
  const auto address = reinterpret_cast<std::uintptr_t>(*pointer);
  for (std::size_t i = 0; i < count; ++i, page = page->next) {
    const std::uintptr_t offset = address - reinterpret_cast<std::uintptr_t>(list[i].data);
    const std::uint64_t size = std::min<std::uint64_t>(list[i].size, page->size);
    if (offset >= size) continue;
    *pointer = PayloadOf(page) + offset;
    *left = static_cast<std::size_t>(size - offset);
    return true;
  }
  return false;
}

void Batch_AttachPage(Batch* batch, BatchPage* page) {
  assert(page != nullptr && page->size <= kMaxPayload);
  page->standalone = 0;
  page->next = batch->pages;
  batch->pages = page;
}

}  // namespace stewardry::cim
