// The buffer of the packed form: a writer that grows, and a reader that checks every step. Every
// item is packed at its alignment, little-endian: the reader uses arrays and texts in place.
//
// Invariants:
// 1. Alignment counts from `data`, which is aligned to 8. The bytes that it skips are filler: a
//    writer zeroes them, since they leave the process, and a reader ignores them.
// 2. A writer's `data` follows a BatchPage in one heap block: the finished buffer becomes a page of
//    a batch without a copy (PackBuf_TakeBlock, Batch_AttachPage). After the capacity the block has
//    kFillerRoom more bytes, which zeroing a filler may overwrite.
// 3. A reader's bytes are untrusted. Nothing outside `size` is accessed, and a step that fails
//    leaves the position and every out unchanged.
//
// One thread at a time uses a buffer. No argument may be null unless its contract says so.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

// Initialize a reader as {bytes, their number, 0, 0}. It does not own the bytes.
struct PackBuf {
  std::uint8_t* data;
  std::uint32_t size;      // writer: bytes written; reader: bytes to read
  std::uint32_t capacity;  // writer: bytes that fit into the block
  std::uint32_t offset;    // reader: the position
};
static_assert(offsetof(PackBuf, size) == 8 && offsetof(PackBuf, capacity) == 12 &&
              offsetof(PackBuf, offset) == 16 && sizeof(PackBuf) == 24);

constexpr std::uint32_t kMinPackCapacity = 256;
// The largest power of two that fits the 31 bits of BatchPage::size.
constexpr std::uint32_t kMaxPackCapacity = 0x40000000;
// Filler is at most 7 bytes, zeroed by one store of this constant size. A store of the exact size
// would cost a call for each item.
constexpr std::uint32_t kFillerRoom = 8;

// The writer. Each function returns RESULT_OK, or RESULT_FAILED if allocation fails or the content
// would exceed kMaxPackCapacity; the buffer is then unchanged and usable.

// Initializes a writer with room for `capacity` bytes, at least kMinPackCapacity. Release it with
// PackBuf_Destroy or PackBuf_TakeBlock. After a failure it has no block, and the first write tries
// to allocate one again.
Result PackBuf_Init(PackBuf* buffer, std::uint32_t capacity);

// Frees the block, if there is one.
void PackBuf_Destroy(PackBuf* buffer);

// Ensures room for `capacity` bytes in all. A larger block has a power of two of them.
Result PackBuf_Reserve(PackBuf* buffer, std::uint32_t capacity);

// Returns the block and transfers its ownership, to be freed by Heap_Free or a batch. Returns null
// without a block. `size` remains the number of bytes written; the caller sets the header's size to
// it.
BatchPage* PackBuf_TakeBlock(PackBuf* buffer);

// Append a number at the alignment of its width.
Result PackBuf_PutU8(PackBuf* buffer, std::uint8_t value);
Result PackBuf_PutU16(PackBuf* buffer, std::uint16_t value);
Result PackBuf_PutU32(PackBuf* buffer, std::uint32_t value);
Result PackBuf_PutU64(PackBuf* buffer, std::uint64_t value);

// Append filler up to the next multiple of 4 or 8.
Result PackBuf_Align4(PackBuf* buffer);
Result PackBuf_Align8(PackBuf* buffer);

// Appends `length` bytes without alignment. `bytes` may be null for the length 0.
Result PackBuf_PutRaw(PackBuf* buffer, const void* bytes, std::uint32_t length);

// Append a text: a count of units, terminator included, and the units. A null text is the count 0.
// The second form takes the first `length` units of `text` and appends a terminator.
Result PackBuf_PutStr(PackBuf* buffer, const char16_t* text);
Result PackBuf_PutStrLen(PackBuf* buffer, const char16_t* text, std::uint32_t length);

// Append a count and the elements; those of 64 bits are aligned to 8 unless the count is 0. Return
// RESULT_FAILED for a null pointer with a count too.
Result PackBuf_PutU8A(PackBuf* buffer, const std::uint8_t* elements, std::uint32_t count);
Result PackBuf_PutU16A(PackBuf* buffer, const std::uint16_t* elements, std::uint32_t count);
Result PackBuf_PutU32A(PackBuf* buffer, const std::uint32_t* elements, std::uint32_t count);
Result PackBuf_PutU64A(PackBuf* buffer, const std::uint64_t* elements, std::uint32_t count);

// Append the record's 36 bytes at alignment 4, or a count and the records.
Result PackBuf_PutDatetime(PackBuf* buffer, const CimDatetime* value);
Result PackBuf_PutDatetimeA(PackBuf* buffer, const CimDatetime* elements, std::uint32_t count);

// Appends a count and, unless it is 0, at alignment 8, count + 1 64-bit offsets: of each text from
// the first one, and of their end; then the texts with their terminators. Returns RESULT_FAILED for
// a null table with a count and for a null element too.
Result PackBuf_PutStrA(PackBuf* buffer, const char16_t* const* texts, std::uint32_t count);

// The reader. Each function returns RESULT_OK, or RESULT_FAILED if the data end too soon. Pointers
// in outs point into the data, or are null for the count 0.

Result PackBuf_GetU8(PackBuf* buffer, std::uint8_t* value);
Result PackBuf_GetU16(PackBuf* buffer, std::uint16_t* value);
Result PackBuf_GetU32(PackBuf* buffer, std::uint32_t* value);
Result PackBuf_GetU64(PackBuf* buffer, std::uint64_t* value);
Result PackBuf_GetDatetime(PackBuf* buffer, CimDatetime* value);

// Returns RESULT_FAILED for a text whose last unit is not a terminator too.
Result PackBuf_GetStr(PackBuf* buffer, const char16_t** text);

Result PackBuf_GetU8A(PackBuf* buffer, const std::uint8_t** data, std::uint32_t* count);
Result PackBuf_GetU16A(PackBuf* buffer, const std::uint16_t** data, std::uint32_t* count);
Result PackBuf_GetU32A(PackBuf* buffer, const std::uint32_t** data, std::uint32_t* count);
Result PackBuf_GetU64A(PackBuf* buffer, const std::uint64_t** data, std::uint32_t* count);
Result PackBuf_GetDatetimeA(PackBuf* buffer, const CimDatetime** data, std::uint32_t* count);

// Replaces the offsets by pointers in place: the data cannot be read as packed again. Returns
// RESULT_FAILED for offsets that decrease or lie outside and for a text without its terminator too;
// the data are then unchanged.
Result PackBuf_GetStrA(PackBuf* buffer, const char16_t* const** data, std::uint32_t* count);

}  // namespace stewardry::cim
