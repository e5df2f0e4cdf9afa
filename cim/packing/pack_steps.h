// The inline steps of packing and unpacking. Every write to a PackBuf goes through Pack_Extend and
// nearly every read through Pack_Take: they check the bounds and advance `size` and `offset`.
#pragma once

#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cim/packing/pack_buffer.h"

namespace stewardry::cim {

// Returns the next multiple of `alignment`, a power of two.
constexpr std::uint64_t Pack_Align(std::uint64_t position, std::uint32_t alignment) {
  assert(std::has_single_bit(alignment) && alignment <= 8);
  return (position + alignment - 1) & ~(alignment - 1ULL);
}

// Zeroes kFillerRoom bytes: the filler and the start of the content, which is stored afterwards.
inline void Pack_ZeroFiller(std::uint8_t* place) { std::memset(place, 0, kFillerRoom); }

// Ensures that the writer has room up to the position `end`. Returns false and changes nothing if
// there is none and allocation fails.
inline bool Pack_Reserve(PackBuf* buffer, std::uint64_t end) {
  if (end <= buffer->capacity) [[likely]]
    return true;
  return end <= kMaxPackCapacity &&
         PackBuf_Reserve(buffer, static_cast<std::uint32_t>(end)) == RESULT_OK;
}

// Advances a writer's `size` to the next multiple of `alignment` and by `bytes`, and stores their
// start in *place. Returns false and changes nothing if there is no room and allocation fails.
inline bool Pack_Extend(PackBuf* buffer, std::uint32_t alignment, std::uint64_t bytes,
                        std::uint8_t** place) {
  const std::uint64_t start = Pack_Align(buffer->size, alignment);
  const std::uint64_t end = start + bytes;
  if (!Pack_Reserve(buffer, end)) return false;
  assert(buffer->data != nullptr && end <= buffer->capacity);
  if (start != buffer->size) Pack_ZeroFiller(buffer->data + buffer->size);
  *place = buffer->data + start;
  buffer->size = static_cast<std::uint32_t>(end);
  return true;
}

// Returns true if alignment in the bytes is alignment in memory.
inline bool Pack_IsAligned(const void* data) {
  return reinterpret_cast<std::uintptr_t>(data) % 8 == 0;
}

// Returns a reader's next `bytes` bytes from the next multiple of `alignment` on and advances the
// position. Returns null and leaves the position if there are fewer.
inline std::uint8_t* Pack_Take(PackBuf* reader, std::uint32_t alignment, std::uint64_t bytes) {
  assert(Pack_IsAligned(reader->data) && reader->offset <= reader->size);
  const std::uint64_t start = Pack_Align(reader->offset, alignment);
  if (start > reader->size || bytes > reader->size - start) return nullptr;
  reader->offset = static_cast<std::uint32_t>(start + bytes);
  return reader->data + start;
}

// Copies the few bytes of a name or a short text without a call to std::memcpy: two pieces, which
// may overlap, from both ends. A loop would cost a mispredicted branch at its end.
inline void Pack_CopyShort(std::uint8_t* to, const void* from, std::size_t bytes) {
  const auto* source = static_cast<const std::uint8_t*>(from);
  if (bytes >= 8 && bytes <= 16) {
    std::memcpy(to, source, 8);
    std::memcpy(to + bytes - 8, source + bytes - 8, 8);
  } else if (bytes > 16 && bytes <= 32) {
    std::memcpy(to, source, 16);
    std::memcpy(to + bytes - 16, source + bytes - 16, 16);
  } else if (bytes != 0) {
    std::memcpy(to, from, bytes);
  }
}

// Compares them in the same way.
inline bool Pack_EqualShort(const void* a, const void* b, std::size_t bytes) {
  const auto* left = static_cast<const std::uint8_t*>(a);
  const auto* right = static_cast<const std::uint8_t*>(b);
  const auto differ = [=](std::size_t at) {
    std::uint64_t x, y;
    std::memcpy(&x, left + at, sizeof x);
    std::memcpy(&y, right + at, sizeof y);
    return x ^ y;
  };
  if (bytes < 8 || bytes > 32) return std::memcmp(a, b, bytes) == 0;
  if (bytes <= 16) return (differ(0) | differ(bytes - 8)) == 0;
  return (differ(0) | differ(8) | differ(bytes - 16) | differ(bytes - 8)) == 0;
}

// Returns the length of a text in units, with four tests in each iteration.
inline std::size_t Pack_TextLength(const char16_t* text) {
  for (const char16_t* unit = text;; unit += 4) {
    if (unit[0] == 0) return static_cast<std::size_t>(unit - text);
    if (unit[1] == 0) return static_cast<std::size_t>(unit - text) + 1;
    if (unit[2] == 0) return static_cast<std::size_t>(unit - text) + 2;
    if (unit[3] == 0) return static_cast<std::size_t>(unit - text) + 3;
  }
}

// Appends a number at the alignment of its width.
template <class Number>
inline Result Pack_PutNumber(PackBuf* buffer, Number value) {
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, sizeof value, sizeof value, &place)) return RESULT_FAILED;
  std::memcpy(place, &value, sizeof value);
  return RESULT_OK;
}

// Appends a count and elements of `width` bytes, as Pack_GetElements reads them, in one extension:
// a count must not remain without its elements.
inline Result Pack_PutElements(PackBuf* buffer, std::uint32_t width, std::uint32_t alignment,
                               const void* elements, std::uint32_t count) {
  assert(alignment <= width || width == sizeof(CimDatetime));
  if (count != 0 && elements == nullptr) return RESULT_FAILED;
  const std::uint64_t start = Pack_Align(buffer->size, sizeof count);
  const std::uint64_t afterCount = start + sizeof count;
  const std::uint64_t at = (count == 0 ? afterCount : Pack_Align(afterCount, alignment)) - start;
  const std::uint64_t bytes = std::uint64_t{count} * width;
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, sizeof count, at + bytes, &place)) return RESULT_FAILED;
  std::memcpy(place, &count, sizeof count);
  Pack_ZeroFiller(place + sizeof count);
  if (count != 0) Pack_CopyShort(place + at, elements, static_cast<std::size_t>(bytes));
  return RESULT_OK;
}

// Appends a count of units, `length` units and a terminator.
inline Result Pack_PutUnits(PackBuf* buffer, const char16_t* units, std::uint32_t length) {
  const std::uint32_t count = length + 1;
  const std::uint64_t bytes = std::uint64_t{length} * sizeof(char16_t);
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, 4, sizeof count + bytes + sizeof(char16_t), &place))
    return RESULT_FAILED;
  std::memcpy(place, &count, sizeof count);
  Pack_CopyShort(place + sizeof count, units, static_cast<std::size_t>(bytes));
  std::memset(place + sizeof count + bytes, 0, sizeof(char16_t));
  return RESULT_OK;
}

// Appends a text. A null text is the count 0.
inline Result Pack_PutText(PackBuf* buffer, const char16_t* text) {
  if (text == nullptr) return Pack_PutNumber(buffer, std::uint32_t{0});
  const std::size_t length = Pack_TextLength(text);
  if (length >= kMaxPackCapacity) return RESULT_FAILED;
  return Pack_PutUnits(buffer, text, static_cast<std::uint32_t>(length));
}

// Loads a number from an address of any alignment.
template <class Number>
Number Pack_Load(const void* bytes) {
  Number number;
  // Also for pointers. NOLINTNEXTLINE(bugprone-sizeof-expression)
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

// Reads a number at the alignment of its width.
template <class Number>
inline Result Pack_GetNumber(PackBuf* reader, Number* value) {
  const std::uint8_t* place = Pack_Take(reader, sizeof *value, sizeof *value);
  if (place == nullptr) return RESULT_FAILED;
  std::memcpy(value, place, sizeof *value);
  return RESULT_OK;
}

inline Result Pack_GetDatetime(PackBuf* reader, CimDatetime* value) {
  const std::uint8_t* place = Pack_Take(reader, alignof(CimDatetime), sizeof *value);
  if (place == nullptr) return RESULT_FAILED;
  std::memcpy(value, place, sizeof *value);
  return RESULT_OK;
}

// Reads an array of plain elements of `width` bytes. The count leaves the position aligned to 4, so
// only 64-bit elements need an `alignment`.
inline Result Pack_GetElements(PackBuf* reader, std::uint32_t width, std::uint32_t alignment,
                               void** data, std::uint32_t* count) {
  const std::uint32_t before = reader->offset;
  std::uint32_t found = 0;
  if (Pack_GetNumber(reader, &found) != RESULT_OK) return RESULT_FAILED;
  void* place = nullptr;
  if (found != 0) {
    place = Pack_Take(reader, alignment, std::uint64_t{found} * width);
    if (place == nullptr) {
      reader->offset = before;
      return RESULT_FAILED;
    }
  }
  *data = place;
  *count = found;
  return RESULT_OK;
}

// Reads a text and its length without the terminator; a null and 0 for the count 0.
inline Result Pack_GetText(PackBuf* reader, const char16_t** text, std::uint32_t* length) {
  const std::uint32_t before = reader->offset;
  std::uint32_t count = 0;
  if (Pack_GetNumber(reader, &count) != RESULT_OK) return RESULT_FAILED;
  if (count == 0) {
    *text = nullptr;
    *length = 0;
    return RESULT_OK;
  }
  // Aligned to 2, since the count before it is aligned to 4.
  const auto* units = reinterpret_cast<const char16_t*>(
      Pack_Take(reader, 1, std::uint64_t{count} * sizeof(char16_t)));
  if (units == nullptr || units[count - 1] != 0) {
    reader->offset = before;
    return RESULT_FAILED;
  }
  *text = units;
  *length = count - 1;
  return RESULT_OK;
}

// Reads a number, boolean or date-time at its alignment. The position of the next item depends on
// the type: with a predicted branch the processor continues before the type is loaded, with a width
// from a table it would wait.
inline Result Pack_GetScalar(PackBuf* reader, std::uint32_t type, CimValue* value) {
  assert(type < CIM_STRING);
  switch (type) {
    case CIM_BOOLEAN:
    case CIM_UINT8:
    case CIM_SINT8:
      return Pack_GetNumber(reader, &value->uint8);
    case CIM_UINT16:
    case CIM_SINT16:
    case CIM_CHAR16:
      return Pack_GetNumber(reader, &value->uint16);
    case CIM_UINT32:
    case CIM_SINT32:
    case CIM_REAL32:
      return Pack_GetNumber(reader, &value->uint32);
    case CIM_DATETIME:
      return Pack_GetDatetime(reader, &value->datetime);
    default:
      return Pack_GetNumber(reader, &value->uint64);
  }
}

}  // namespace stewardry::cim
