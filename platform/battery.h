// Battery devices: their interface class, their records and their calls. On Linux they are the
// batteries of /sys/class/power_supply.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/guid.h"
#include "platform/handle.h"

namespace platform {

// GUID_DEVICE_BATTERY of poclass.h.
inline constexpr Guid kBatteryInterfaceClass = {
    0x72631E54, 0x78A4, 0x11D0, {0xBC, 0xF7, 0x00, 0xAA, 0x00, 0xB7, 0xB3, 0x2A}};

// The control codes.
constexpr std::uint32_t kIoctlBatteryQueryTag = 0x294040;          // IOCTL_BATTERY_QUERY_TAG
constexpr std::uint32_t kIoctlBatteryQueryInformation = 0x294044;  // ..._QUERY_INFORMATION
constexpr std::uint32_t kIoctlBatteryQueryStatus = 0x29404C;       // ..._QUERY_STATUS

constexpr std::uint32_t kBatteryTagInvalid = 0;            // BATTERY_TAG_INVALID: no battery
constexpr std::uint32_t kBatteryInformationLevel = 0;      // BatteryInformation
constexpr std::uint32_t kBatterySystemBattery = 1U << 31;  // BATTERY_SYSTEM_BATTERY
constexpr std::uint32_t kBatteryIsShortTerm = 1U << 29;    // BATTERY_IS_SHORT_TERM
constexpr std::uint32_t kBatteryPowerOnLine = 1U << 0;     // BATTERY_POWER_ON_LINE
constexpr std::uint32_t kBatteryDischarging = 1U << 1;     // BATTERY_DISCHARGING
constexpr std::uint32_t kBatteryCharging = 1U << 2;        // BATTERY_CHARGING

// BATTERY_QUERY_INFORMATION, 12 bytes.
struct BatteryQueryInformation {
  std::uint32_t tag;
  std::uint32_t level;
  std::int32_t atRate;
};
static_assert(sizeof(BatteryQueryInformation) == 12);

// BATTERY_INFORMATION, 36 bytes. Capacities are in mWh.
struct BatteryInformation {
  std::uint32_t capabilities;
  std::uint8_t technology;  // 1: rechargeable
  std::uint8_t reserved[3];
  char chemistry[4];  // no terminator
  std::uint32_t designedCapacity;
  std::uint32_t fullChargedCapacity;
  std::uint32_t defaultAlert1;
  std::uint32_t defaultAlert2;
  std::uint32_t criticalBias;
  std::uint32_t cycleCount;
};
static_assert(sizeof(BatteryInformation) == 36 && offsetof(BatteryInformation, chemistry) == 8 &&
              offsetof(BatteryInformation, cycleCount) == 32);

// BATTERY_WAIT_STATUS, 20 bytes. A time-out of 0 queries the status without a wait.
struct BatteryWaitStatus {
  std::uint32_t tag;
  std::uint32_t timeoutMilliseconds;
  std::uint32_t powerState;
  std::uint32_t lowCapacity;
  std::uint32_t highCapacity;
};
static_assert(sizeof(BatteryWaitStatus) == 20);

// BATTERY_STATUS, 16 bytes: mWh, mV, mW (negative when discharging).
struct BatteryStatus {
  std::uint32_t powerState;
  std::uint32_t capacity;
  std::uint32_t voltage;
  std::int32_t rate;
};
static_assert(sizeof(BatteryStatus) == 16);

void CloseBattery(RawHandle raw);
using BatteryHandle = Owned<struct BatteryHandleTag, CloseBattery>;

// Opens an existing battery for reading and writing, shared with other openers (CreateFileA). Holds
// the invalid handle value on failure.
BatteryHandle OpenBattery(const char* path);

// Sends a request and blocks until it has finished (DeviceIoControl). Stores the number of output
// bytes in *returned.
bool BatteryIoControl(const BatteryHandle& battery, std::uint32_t code, const void* input,
                      std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                      std::uint32_t* returned);

}  // namespace platform
