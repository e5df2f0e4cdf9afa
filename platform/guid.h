// GUIDs, laid out as Windows' GUID.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

struct Guid {
  std::uint32_t data1;
  std::uint16_t data2;
  std::uint16_t data3;
  std::uint8_t data4[8];
};
static_assert(sizeof(Guid) == 16 && offsetof(Guid, data4) == 8);

constexpr std::size_t kGuidTextUnits = 39;  // "{...}" and its terminator
// Stores the text of a GUID, "{72631E54-78A4-11D0-BCF7-00AA00B7B32A}", zero-terminated. Returns
// false with an empty text on failure.
bool StringFromGUID2(const Guid& guid, char16_t (&text)[kGuidTextUnits]);

}  // namespace platform
