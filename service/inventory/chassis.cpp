// The chassis types of the machine, in words.
#include "service/inventory/chassis.h"

#include <cstdint>

#include "service/diagnostics/service_log.h"
#include "service/inventory/wmi_access.h"

namespace stewardry {

namespace {

// SMBIOS chassis types: 9 laptop, 10 notebook.
bool IsLaptop(std::uint16_t chassisType) { return chassisType == 9 || chassisType == 10; }

bool LogChassisTypes(const platform::WbemObject& enclosure) {
  platform::WbemValue types;
  if (platform::Failed(platform::GetProperty(enclosure, u"ChassisTypes", &types))) return true;
  if (types.kind != platform::WbemValue::kNumbers) return true;
  LogInfo("Chassis Types:");
  for (const std::uint32_t type : types.numbers)
    LogInfo("%s", IsLaptop(static_cast<std::uint16_t>(type)) ? "Laptop" : "Desktop detected");
  return true;
}

}  // namespace

void DetectChassis() {
  // Start-up goes on whatever comes of it.
  (void)ReadWmiRows({u"SELECT * FROM Win32_SystemEnclosure", nullptr}, LogChassisTypes);
}

}  // namespace stewardry
