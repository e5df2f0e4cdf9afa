// The buffer of the packed form: a writer that grows, and a reader that checks every step. What is
// packed is laid out for the reader: at its alignment, little-endian, so that arrays and texts are
// used where they lie.
//
// Invariants:
// 1. Alignment counts from `data`, which is aligned to 8. The bytes that it skips are filler: a
//    writer makes them zero, since they leave the process, and a reader never looks at them.
// 2. A writer's `data` lies behind a BatchPage in one heap block, so that the finished buffer
//    becomes a page of a batch without a copy (PackBuf_TakeBlock, Batch_AttachPage). Behind the
//    capacity the block has kFillerRoom bytes more, which the zeros of a filler may overwrite.
// 3. A reader's bytes come from anyone. Whatever they say, nothing outside `size` is touched, and a
//    step that fails leaves the position and every out as they were.
//
// One thread at a time uses a buffer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

// A reader is made as {bytes, their number, 0, 0}; the bytes stay their owner's.
struct PackBuf {
  std::uint8_t* data;
  std::uint32_t size;      // writer: bytes written; reader: bytes there are
  std::uint32_t capacity;  // writer: bytes there is room for
  std::uint32_t offset;    // reader: the position
};
static_assert(offsetof(PackBuf, size) == 8 && offsetof(PackBuf, capacity) == 12 &&
              offsetof(PackBuf, offset) == 16 && sizeof(PackBuf) == 24);

constexpr std::uint32_t kMinPackCapacity = 256;
// The largest power of two that the size of a BatchPage can tell.
constexpr std::uint32_t kMaxPackCapacity = 0x40000000;
// Filler is at most 7 bytes, and zeroed by a store of this size: one that took the exact number
// would cost a call for each item.
constexpr std::uint32_t kFillerRoom = 8;

// The writer. Each gives RESULT_OK, or RESULT_FAILED when memory fails or the content would pass
// kMaxPackCapacity; the buffer then stands as it was and stays usable.

// Sets up a writer with room for `capacity` bytes, at least kMinPackCapacity. It ends with
// PackBuf_Destroy or PackBuf_TakeBlock. After a failure it has no block, and the first bytes put
// into it ask for one again.
Result PackBuf_Init(PackBuf* buffer, std::uint32_t capacity);

// Frees the block, if there is one.
void PackBuf_Destroy(PackBuf* buffer);

// Room for `capacity` bytes, rounded up to a power of two if that is more than there is.
Result PackBuf_Reserve(PackBuf* buffer, std::uint32_t capacity);

// Hands the block over, which Heap_Free or a batch frees; empty if there is none. `size` keeps
// telling what was written, and the header's size is the caller's to set to it.
BatchPage* PackBuf_TakeBlock(PackBuf* buffer);

// A number at the alignment of its width.
Result PackBuf_PutU8(PackBuf* buffer, std::uint8_t value);
Result PackBuf_PutU16(PackBuf* buffer, std::uint16_t value);
Result PackBuf_PutU32(PackBuf* buffer, std::uint32_t value);
Result PackBuf_PutU64(PackBuf* buffer, std::uint64_t value);

// Filler up to the next multiple of 4 or 8.
Result PackBuf_Align4(PackBuf* buffer);
Result PackBuf_Align8(PackBuf* buffer);

// `length` bytes, with no alignment.
Result PackBuf_PutRaw(PackBuf* buffer, const void* bytes, std::uint32_t length);

// A text item: a count of units, terminator included, and the units. An empty pointer is the count
// 0 alone. The second form takes the first `length` units of `text` and ends them.
Result PackBuf_PutStr(PackBuf* buffer, const char16_t* text);
Result PackBuf_PutStrLen(PackBuf* buffer, const char16_t* text, std::uint32_t length);

// A count and the elements; those of 64 bits are aligned to 8 if there are any. RESULT_FAILED also
// for an empty pointer with a count.
Result PackBuf_PutU8A(PackBuf* buffer, const std::uint8_t* elements, std::uint32_t count);
Result PackBuf_PutU16A(PackBuf* buffer, const std::uint16_t* elements, std::uint32_t count);
Result PackBuf_PutU32A(PackBuf* buffer, const std::uint32_t* elements, std::uint32_t count);
Result PackBuf_PutU64A(PackBuf* buffer, const std::uint64_t* elements, std::uint32_t count);

// The record's 36 bytes at alignment 4; a count and the records.
Result PackBuf_PutDatetime(PackBuf* buffer, const CimDatetime* value);
Result PackBuf_PutDatetimeA(PackBuf* buffer, const CimDatetime* elements, std::uint32_t count);

// A count; if it isn't 0 also, at alignment 8, count + 1 64-bit offsets of the texts from the first
// one and of their end, and the texts with their terminators. RESULT_FAILED also for an empty table
// with a count and for an empty element.
Result PackBuf_PutStrA(PackBuf* buffer, const char16_t* const* texts, std::uint32_t count);

// The reader. Each gives RESULT_OK, or RESULT_FAILED when the data end too soon; what is given out
// points into the data, and is empty for the count 0.

Result PackBuf_GetU8(PackBuf* buffer, std::uint8_t* value);
Result PackBuf_GetU16(PackBuf* buffer, std::uint16_t* value);
Result PackBuf_GetU32(PackBuf* buffer, std::uint32_t* value);
Result PackBuf_GetU64(PackBuf* buffer, std::uint64_t* value);
Result PackBuf_GetDatetime(PackBuf* buffer, CimDatetime* value);

// RESULT_FAILED also for a text whose last unit isn't a terminator.
Result PackBuf_GetStr(PackBuf* buffer, const char16_t** text);

Result PackBuf_GetU8A(PackBuf* buffer, const std::uint8_t** data, std::uint32_t* count);
Result PackBuf_GetU16A(PackBuf* buffer, const std::uint16_t** data, std::uint32_t* count);
Result PackBuf_GetU32A(PackBuf* buffer, const std::uint32_t** data, std::uint32_t* count);
Result PackBuf_GetU64A(PackBuf* buffer, const std::uint64_t** data, std::uint32_t* count);
Result PackBuf_GetDatetimeA(PackBuf* buffer, const CimDatetime** data, std::uint32_t* count);

// Turns the table of offsets into one of pointers, in place: the data can't be read as packed
// again. RESULT_FAILED also for offsets that go backwards or outside, and for a text without its
// terminator; the data are then as they were.
Result PackBuf_GetStrA(PackBuf* buffer, const char16_t* const** data, std::uint32_t* count);

}  // namespace stewardry::cim
