#include "platform/settings.h"

#include <string>

#include "platform/windows/runtime/windows_api.h"

namespace platform {

std::uint32_t ReadSetting(const char* service, const char* name, std::uint32_t fallback) {
  const std::string key =
      std::string("SYSTEM\\CurrentControlSet\\Services\\") + service + "\\Parameters";
  DWORD value = 0;
  DWORD size = sizeof value;
  const LSTATUS result = ::RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_DWORD,
                                        nullptr, &value, &size);
  return result == ERROR_SUCCESS ? value : fallback;
}

}  // namespace platform
