// The settings that an administrator makes for a service: its Parameters key in the registry.
#pragma once

#include <cstdint>

namespace platform {

// Returns the DWORD value `name` of HKLM\SYSTEM\CurrentControlSet\Services\<service>\Parameters,
// and `fallback` if there is none, it is of another type or can't be read. On Linux a decimal
// number in the lab's file settings/<name>. Any thread.
std::uint32_t ReadSetting(const char* service, const char* name, std::uint32_t fallback);

}  // namespace platform
