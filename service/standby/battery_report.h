// What the firmware is told of the machine's batteries and of its user's presence. No flow of the
// service runs these reports, though the control handler keeps the two values that they work from:
// they stand ready for a caller.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/battery.h"
#include "platform/wmi.h"

namespace stewardry {

// The values of gBatteryState. 3, the start value of all four below, stands for "not known".
constexpr std::uint32_t kBatteryIsCritical = 1;
constexpr std::uint32_t kBatteryIsDrained = 2;

// The last user presence and battery state seen in a power event. Written by the control handler;
// relaxed, each stands for itself.
extern std::atomic<std::uint32_t> gUserPresence;
extern std::atomic<std::uint32_t> gBatteryState;
// The values last reported. Written by ReportPresenceAndBattery; relaxed.
extern std::atomic<std::uint32_t> gLastUserPresence;
extern std::atomic<std::uint32_t> gLastBatteryState;

// One battery device, 52 bytes, little-endian.
struct BatteryInfoRecord {
  platform::BatteryInformation information;
  platform::BatteryStatus status;  // zero unless it is a system battery
};
static_assert(sizeof(BatteryInfoRecord) == 52 && offsetof(BatteryInfoRecord, status) == 36);

// What WMI tells of a battery, 200 bytes, little-endian.
struct BatteryStatusRecord {
  // BatteryStatus, Status, Availability, StatusInfo, Chemistry, ExpectedLife, EstimatedRunTime,
  // TimeToFullCharge of Win32_Battery.
  platform::RawVariant values[8];
  std::uint32_t batteryState;  // gBatteryState
  std::uint32_t reserved;      // zero
};
static_assert(sizeof(BatteryStatusRecord) == 200 &&
              offsetof(BatteryStatusRecord, batteryState) == 192 &&
              offsetof(BatteryStatusRecord, reserved) == 196);

// Tells the firmware of a change of the user's presence, and then of a change of the battery's
// state to critical or drained. While the presence is the one last told, the battery isn't looked
// at. Waits for the firmware without a time-out; its lines go to the service log. One thread at a
// time.
void ReportPresenceAndBattery();

// Copies the values of WMI's batteries into *record; the last one stands there at the end. Without
// a battery *record stays as it was. 0, or 1 on a WMI failure, which is in the WMI log. Any thread.
std::uint32_t GetCompleteBatteryinformation(BatteryStatusRecord* record);

// Sends a record of each battery device that has a battery in it; one that can't be asked has
// nothing to send. 0, or 1 without a mailbox handle. Its lines go to the service log. Any thread.
std::uint32_t ReportBatteryDevices();

}  // namespace stewardry
