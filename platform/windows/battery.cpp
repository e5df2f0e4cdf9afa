#include "platform/battery.h"

#include "platform/windows/runtime/guid_cast.h"
#include "platform/windows/runtime/windows_api.h"
// These need windows.h.
#include <winioctl.h>

#include <batclass.h>
#include <poclass.h>

namespace platform {

static_assert(kIoctlBatteryQueryTag == IOCTL_BATTERY_QUERY_TAG &&
              kIoctlBatteryQueryInformation == IOCTL_BATTERY_QUERY_INFORMATION &&
              kIoctlBatteryQueryStatus == IOCTL_BATTERY_QUERY_STATUS);
static_assert(kBatteryTagInvalid == BATTERY_TAG_INVALID &&
              kBatteryInformationLevel == ::BatteryInformation &&
              kBatterySystemBattery == BATTERY_SYSTEM_BATTERY &&
              kBatteryIsShortTerm == BATTERY_IS_SHORT_TERM &&
              kBatteryPowerOnLine == BATTERY_POWER_ON_LINE &&
              kBatteryDischarging == BATTERY_DISCHARGING && kBatteryCharging == BATTERY_CHARGING);
static_assert(sizeof(BatteryQueryInformation) == sizeof(BATTERY_QUERY_INFORMATION) &&
              sizeof(BatteryInformation) == sizeof(BATTERY_INFORMATION) &&
              offsetof(BatteryInformation, chemistry) == offsetof(BATTERY_INFORMATION, Chemistry) &&
              offsetof(BatteryInformation, cycleCount) ==
                  offsetof(BATTERY_INFORMATION, CycleCount) &&
              sizeof(BatteryWaitStatus) == sizeof(BATTERY_WAIT_STATUS) &&
              sizeof(BatteryStatus) == sizeof(BATTERY_STATUS));

void CloseBattery(RawHandle raw) { ::CloseHandle(raw); }

BatteryHandle OpenBattery(const char* path) {
  return BatteryHandle(::CreateFileA(path, GENERIC_READ | GENERIC_WRITE,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool BatteryIoControl(const BatteryHandle& battery, std::uint32_t code, const void* input,
                      std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                      std::uint32_t* returned) {
  DWORD count = 0;
  const BOOL done = ::DeviceIoControl(battery.Raw(), code, const_cast<void*>(input), inputSize,
                                      output, outputSize, &count, nullptr);
  *returned = count;
  return done != FALSE;
}

}  // namespace platform
