// The writer of a PackBuf: a heap block whose capacity doubles.
#include <algorithm>
#include <bit>
#include <cstring>

#include "cim/memory/heap.h"
#include "cim/packing/pack_buffer.h"
#include "cim/packing/pack_steps.h"

namespace stewardry::cim {
namespace {

BatchPage* BlockOf(const PackBuf* buffer) {
  return buffer->data == nullptr ? nullptr : reinterpret_cast<BatchPage*>(buffer->data) - 1;
}

// Replaces the block by one with room for `capacity` bytes after its header, with the old content.
Result Resize(PackBuf* buffer, std::uint32_t capacity) {
  assert(capacity <= kMaxPackCapacity && buffer->capacity <= kMaxPackCapacity);
  const std::size_t bytes = sizeof(BatchPage) + std::size_t{capacity} + kFillerRoom;
  auto* block = static_cast<BatchPage*>(Heap_Reallocate(BlockOf(buffer), bytes));
  if (block == nullptr) return RESULT_FAILED;
  *block = {nullptr, 0, capacity & 0x7FFFFFFF, 0};
  buffer->data = reinterpret_cast<std::uint8_t*>(block + 1);
  buffer->capacity = capacity;
  return RESULT_OK;
}

Result PutAligned(PackBuf* buffer, std::uint32_t alignment, const void* bytes,
                  std::uint64_t length) {
  assert(length == 0 || bytes != nullptr);
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, alignment, length, &place)) return RESULT_FAILED;
  if (length != 0) std::memcpy(place, bytes, static_cast<std::size_t>(length));
  return RESULT_OK;
}

Result Align(PackBuf* buffer, std::uint32_t alignment) {
  return PutAligned(buffer, alignment, nullptr, 0);
}

template <class Element>
Result PutArray(PackBuf* buffer, const Element* elements, std::uint32_t count) {
  return Pack_PutElements(buffer, sizeof(Element), alignof(Element), elements, count);
}

// Appends the table of offsets and the texts.
Result PutTexts(PackBuf* buffer, const char16_t* const* texts, std::uint32_t count) {
  assert(texts != nullptr && count != 0);
  const std::uint64_t tableBytes = (std::uint64_t{count} + 1) * sizeof(std::uint64_t);
  std::uint8_t* table = nullptr;
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, 8, tableBytes, &table)) return RESULT_FAILED;
  std::uint64_t end = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (texts[i] == nullptr) return RESULT_FAILED;
    std::memcpy(table + i * sizeof end, &end, sizeof end);
    end += (Pack_TextLength(texts[i]) + 1) * sizeof(char16_t);
  }
  std::memcpy(table + count * sizeof end, &end, sizeof end);
  if (!Pack_Extend(buffer, 1, end, &place)) return RESULT_FAILED;
  table = place - tableBytes;  // the extension may have moved it
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto from = Pack_Load<std::uint64_t>(table + i * sizeof end);
    const auto to = Pack_Load<std::uint64_t>(table + (i + 1) * sizeof end);
    assert(from < to && to <= end);
    Pack_CopyShort(place + from, texts[i], static_cast<std::size_t>(to - from));
  }
  return RESULT_OK;
}

}  // namespace

Result PackBuf_Init(PackBuf* buffer, std::uint32_t capacity) {
  *buffer = {nullptr, 0, 0, 0};
  if (capacity > kMaxPackCapacity) return RESULT_FAILED;
  return Resize(buffer, std::max(capacity, kMinPackCapacity));
}

void PackBuf_Destroy(PackBuf* buffer) { Heap_Free(PackBuf_TakeBlock(buffer)); }

Result PackBuf_Reserve(PackBuf* buffer, std::uint32_t capacity) {
  if (buffer->data != nullptr && capacity <= buffer->capacity) return RESULT_OK;
  if (capacity > kMaxPackCapacity) return RESULT_FAILED;
  return Resize(buffer, std::bit_ceil(capacity));
}

BatchPage* PackBuf_TakeBlock(PackBuf* buffer) {
  BatchPage* block = BlockOf(buffer);
  buffer->data = nullptr;
  buffer->capacity = 0;  // the next write allocates a block
  return block;
}

Result PackBuf_PutU8(PackBuf* buffer, std::uint8_t value) { return Pack_PutNumber(buffer, value); }
Result PackBuf_PutU16(PackBuf* buffer, std::uint16_t value) {
  return Pack_PutNumber(buffer, value);
}
Result PackBuf_PutU32(PackBuf* buffer, std::uint32_t value) {
  return Pack_PutNumber(buffer, value);
}
Result PackBuf_PutU64(PackBuf* buffer, std::uint64_t value) {
  return Pack_PutNumber(buffer, value);
}

Result PackBuf_Align4(PackBuf* buffer) { return Align(buffer, 4); }
Result PackBuf_Align8(PackBuf* buffer) { return Align(buffer, 8); }

Result PackBuf_PutRaw(PackBuf* buffer, const void* bytes, std::uint32_t length) {
  return PutAligned(buffer, 1, bytes, length);
}

Result PackBuf_PutStr(PackBuf* buffer, const char16_t* text) { return Pack_PutText(buffer, text); }

Result PackBuf_PutStrLen(PackBuf* buffer, const char16_t* text, std::uint32_t length) {
  return text == nullptr ? Pack_PutNumber(buffer, std::uint32_t{0})
                         : Pack_PutUnits(buffer, text, length);
}

Result PackBuf_PutU8A(PackBuf* buffer, const std::uint8_t* elements, std::uint32_t count) {
  return PutArray(buffer, elements, count);
}
Result PackBuf_PutU16A(PackBuf* buffer, const std::uint16_t* elements, std::uint32_t count) {
  return PutArray(buffer, elements, count);
}
Result PackBuf_PutU32A(PackBuf* buffer, const std::uint32_t* elements, std::uint32_t count) {
  return PutArray(buffer, elements, count);
}
Result PackBuf_PutU64A(PackBuf* buffer, const std::uint64_t* elements, std::uint32_t count) {
  return PutArray(buffer, elements, count);
}

Result PackBuf_PutDatetime(PackBuf* buffer, const CimDatetime* value) {
  return PutAligned(buffer, alignof(CimDatetime), value, sizeof *value);
}
Result PackBuf_PutDatetimeA(PackBuf* buffer, const CimDatetime* elements, std::uint32_t count) {
  return PutArray(buffer, elements, count);
}

Result PackBuf_PutStrA(PackBuf* buffer, const char16_t* const* texts, std::uint32_t count) {
  if (count != 0 && texts == nullptr) return RESULT_FAILED;
  const std::uint32_t before = buffer->size;
  if (Pack_PutNumber(buffer, count) != RESULT_OK) return RESULT_FAILED;
  const Result result = count == 0 ? RESULT_OK : PutTexts(buffer, texts, count);
  if (result != RESULT_OK) buffer->size = before;
  return result;
}

}  // namespace stewardry::cim
