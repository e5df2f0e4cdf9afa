#include "platform/guid.h"

#include <cstdio>

#include "platform/linux/runtime/gate.h"

namespace platform {

bool StringFromGUID2(const Guid& guid, char16_t (&text)[kGuidTextUnits]) {
  text[0] = 0;
  if (gate::Fails("StringFromGUID2")) return false;
  const std::uint8_t* d = guid.data4;
  char plain[kGuidTextUnits];
  static_assert(sizeof "{00000000-0000-0000-0000-000000000000}" == sizeof plain);
  std::snprintf(plain, sizeof plain, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                guid.data1, guid.data2, guid.data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
  for (std::size_t i = 0; i < kGuidTextUnits; ++i) text[i] = static_cast<char16_t>(plain[i]);
  return true;
}

}  // namespace platform
