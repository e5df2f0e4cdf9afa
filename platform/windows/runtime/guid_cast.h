#pragma once

#include <array>
#include <bit>

#include "platform/guid.h"
#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(sizeof(Guid) == sizeof(GUID) && offsetof(Guid, data1) == offsetof(GUID, Data1) &&
              offsetof(Guid, data2) == offsetof(GUID, Data2) &&
              offsetof(Guid, data3) == offsetof(GUID, Data3) &&
              offsetof(Guid, data4) == offsetof(GUID, Data4));

// Returns whether both are the same GUID.
constexpr bool IsSameGuid(const Guid& guid, const GUID& other) {
  using Bytes = std::array<std::uint8_t, sizeof(GUID)>;
  return std::bit_cast<Bytes>(guid) == std::bit_cast<Bytes>(other);
}

inline GUID WindowsGuid(const Guid& guid) { return std::bit_cast<GUID>(guid); }

}  // namespace platform
