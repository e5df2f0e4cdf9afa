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

}  // namespace platform
