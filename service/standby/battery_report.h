// The reports to the firmware on the machine's batteries and its user's presence. No flow of the
// service calls them, though the control handler keeps the two values that they report.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/battery.h"
#include "platform/wmi.h"

namespace stewardry {

// The values of gBatteryState that have a control code.
constexpr std::uint32_t kBatteryIsCritical = 1;
constexpr std::uint32_t kBatteryIsDrained = 2;

// One battery device, 52 bytes, little-endian.
struct BatteryInfoRecord {
  platform::BatteryInformation information;
  platform::BatteryStatus status;  // zero unless it is a system battery
};
static_assert(sizeof(BatteryInfoRecord) == 52 && offsetof(BatteryInfoRecord, status) == 36);

// WMI's description of a battery, 200 bytes, little-endian.
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

// Sends a change of the user's presence to the firmware, and then a change of the battery's state
// to critical or drained. The battery is not checked unless the presence has changed. Blocks until
// the firmware answers, without a time-out. Logs to the service log. One thread at a time.
void ReportPresenceAndBattery();

// Copies the values of WMI's last battery to *record; without a battery it stays as it was. Returns
// 0, or 1 on a WMI failure, which is in the WMI log. Any thread.
std::uint32_t GetCompleteBatteryinformation(BatteryStatusRecord* record);

// Sends a record of each battery device that contains a battery and can be read. Returns 0, or 1
// without a mailbox handle. Logs to the service log. Any thread.
std::uint32_t ReportBatteryDevices();

}  // namespace stewardry
