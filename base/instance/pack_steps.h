// The two steps on which every write to a PackBuf and every read from one rests. Nothing else moves
// `size` on or `offset`, and nothing else compares with a bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/instance/pack_buffer.h"

namespace stewardry {

// The next multiple of `alignment`, a power of two.
constexpr std::uint64_t Pack_Align(std::uint64_t position, std::uint32_t alignment) {
  return (position + alignment - 1) & ~(alignment - 1ULL);
}

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

// A number at any address.
template <class Number>
Number Pack_Load(const void* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

}  // namespace stewardry
