// The steps of packing and unpacking, in a header because packing and a walk are made of little
// else. Pack_Extend and Pack_Take are the two on which every write to a PackBuf and every read from
// one rests: little else moves `size` on or `offset`, or compares with a bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cim/packing/pack_buffer.h"

namespace stewardry::cim {

// The next multiple of `alignment`, a power of two.
constexpr std::uint64_t Pack_Align(std::uint64_t position, std::uint32_t alignment) {
  return (position + alignment - 1) & ~(alignment - 1ULL);
}

// Zeroes the filler from `place` on, and what follows it up to kFillerRoom bytes: content is stored
// afterwards.
inline void Pack_ZeroFiller(std::uint8_t* place) { std::memset(place, 0, kFillerRoom); }

// Moves a writer's `size` to the next multiple of `alignment` and on by `bytes`, which start at
// *place. False, and nothing moved, when there is no room to be had.
inline bool Pack_Extend(PackBuf* buffer, std::uint32_t alignment, std::uint64_t bytes,
                        std::uint8_t** place) {
  const std::uint64_t start = Pack_Align(buffer->size, alignment);
  const std::uint64_t end = start + bytes;
  if (end > buffer->capacity) {
    if (end > kMaxPackCapacity) return false;
    if (PackBuf_Reserve(buffer, static_cast<std::uint32_t>(end)) != RESULT_OK) return false;
  }
  if (start != buffer->size) Pack_ZeroFiller(buffer->data + buffer->size);
  *place = buffer->data + start;
  buffer->size = static_cast<std::uint32_t>(end);
  return true;
}

// A reader's next `bytes` bytes from the next multiple of `alignment`; empty, and the position
// unmoved, when there aren't as many.
inline std::uint8_t* Pack_Take(PackBuf* reader, std::uint32_t alignment, std::uint64_t bytes) {
  const std::uint64_t start = Pack_Align(reader->offset, alignment);
  if (start > reader->size || bytes > reader->size - start) return nullptr;
  reader->offset = static_cast<std::uint32_t>(start + bytes);
  return reader->data + start;
}

// std::memcpy for the few bytes of a name or a short text, without the call: two pieces, which may
// overlap, from both ends. A loop would cost more in guesses at its last turn.
inline void Pack_CopyShort(std::uint8_t* to, const void* from, std::size_t bytes) {
  const auto* source = static_cast<const std::uint8_t*>(from);
  if (bytes < 8 || bytes > 32) {
    std::memcpy(to, from, bytes);
  } else if (bytes <= 16) {
    std::memcpy(to, source, 8);
    std::memcpy(to + bytes - 8, source + bytes - 8, 8);
  } else {
    std::memcpy(to, source, 16);
    std::memcpy(to + bytes - 16, source + bytes - 16, 16);
  }
}

// The length of a text in units, four tests for each turn of the loop.
inline std::size_t Pack_TextLength(const char16_t* text) {
  for (const char16_t* unit = text;; unit += 4) {
    if (unit[0] == 0) return static_cast<std::size_t>(unit - text);
    if (unit[1] == 0) return static_cast<std::size_t>(unit - text) + 1;
    if (unit[2] == 0) return static_cast<std::size_t>(unit - text) + 2;
    if (unit[3] == 0) return static_cast<std::size_t>(unit - text) + 3;
  }
}

// A number at the alignment of its width.
template <class Number>
inline Result Pack_PutNumber(PackBuf* buffer, Number value) {
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, sizeof value, sizeof value, &place)) return RESULT_FAILED;
  std::memcpy(place, &value, sizeof value);
  return RESULT_OK;
}

// A count and elements of `width` bytes, as Pack_GetElements reads them. All or nothing: a count
// without its elements would be read as one.
inline Result Pack_PutElements(PackBuf* buffer, std::uint32_t width, std::uint32_t alignment,
                               const void* elements, std::uint32_t count) {
  if (count != 0 && elements == nullptr) return RESULT_FAILED;
  const std::uint64_t start = Pack_Align(buffer->size, sizeof count);
  const std::uint64_t behindCount = start + sizeof count;
  const std::uint64_t at = (count == 0 ? behindCount : Pack_Align(behindCount, alignment)) - start;
  const std::uint64_t bytes = std::uint64_t{count} * width;
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, sizeof count, at + bytes, &place)) return RESULT_FAILED;
  std::memcpy(place, &count, sizeof count);
  Pack_ZeroFiller(place + sizeof count);
  if (count != 0) Pack_CopyShort(place + at, elements, static_cast<std::size_t>(bytes));
  return RESULT_OK;
}

// A count of units, `length` units and a terminator.
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

// A text item; an empty pointer is the count 0.
inline Result Pack_PutText(PackBuf* buffer, const char16_t* text) {
  if (text == nullptr) return Pack_PutNumber(buffer, std::uint32_t{0});
  const std::size_t length = Pack_TextLength(text);
  if (length >= kMaxPackCapacity) return RESULT_FAILED;
  return Pack_PutUnits(buffer, text, static_cast<std::uint32_t>(length));
}

// A number at any address.
template <class Number>
Number Pack_Load(const void* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

// What the reader's calls are made of.

template <class Number>
inline Result Pack_GetNumber(PackBuf* reader, Number* value) {
  const std::uint8_t* place = Pack_Take(reader, sizeof *value, sizeof *value);
  if (place == nullptr) return RESULT_FAILED;
  std::memcpy(value, place, sizeof *value);
  return RESULT_OK;
}

// An array of plain elements of `width` bytes, aligned to `alignment`. Elements of 64 bits alone
// can want an alignment that the count hasn't.
inline Result Pack_GetElements(PackBuf* reader, std::uint32_t width, std::uint32_t alignment,
                               void** data, std::uint32_t* count) {
  const std::uint32_t before = reader->offset;
  std::uint32_t found = 0;
  if (Pack_GetNumber(reader, &found) != RESULT_OK) return RESULT_FAILED;
  void* place = nullptr;
  if (found != 0) {
    place = Pack_Take(reader, alignment, std::uint64_t{found} * width);
    if (place == nullptr) return reader->offset = before, RESULT_FAILED;
  }
  *data = place;
  *count = found;
  return RESULT_OK;
}

inline Result Pack_GetText(PackBuf* reader, const char16_t** text, std::uint32_t* length) {
  const std::uint32_t before = reader->offset;
  std::uint32_t count = 0;
  if (Pack_GetNumber(reader, &count) != RESULT_OK) return RESULT_FAILED;
  if (count == 0) return *text = nullptr, *length = 0, RESULT_OK;
  // Aligned to 2, since the count before it was aligned to 4.
  const auto* units = reinterpret_cast<const char16_t*>(
      Pack_Take(reader, 1, std::uint64_t{count} * sizeof(char16_t)));
  if (units == nullptr || units[count - 1] != 0) return reader->offset = before, RESULT_FAILED;
  *text = units;
  *length = count - 1;
  return RESULT_OK;
}

// A scalar value at the alignment of its width; a date and time at that of its words. What follows
// lies where the value ends: a branch on the type lets the processor go on there before it has
// loaded the type, where a width from a table would be waited for.
inline Result Pack_GetScalar(PackBuf* reader, std::uint32_t type, CimValue* value) {
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
      return PackBuf_GetDatetime(reader, &value->datetime);
    default:
      return Pack_GetNumber(reader, &value->uint64);
  }
}

}  // namespace stewardry::cim
