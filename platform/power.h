// Privileges, power actions and the power status. On Linux a power action only appends a line to
// the lab's power.txt.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

void CloseToken(RawHandle raw);
using Token = Owned<struct TokenTag, CloseToken>;

struct Luid {
  std::uint32_t low;
  std::int32_t high;
};

// Opens the token of this process, to query it and to adjust its privileges.
Token OpenProcessToken();
// Stores the identifier of a privilege of this machine.
bool LookupPrivilegeValueA(const char* name, Luid* luid);
// Enables one privilege. Returns true also if the token lacks it: then only the last error says so.
bool AdjustTokenPrivileges(const Token& token, const Luid& luid);

constexpr std::uint32_t kReasonMajorApplication = 0x40000;  // SHTDN_REASON_MAJOR_APPLICATION

// Starts a shutdown or reboot of this machine. `message` may be null.
bool InitiateSystemShutdownExA(const char* message, std::uint32_t timeoutSeconds, bool forceClose,
                               bool reboot, std::uint32_t reason);
// Suspends or hibernates the machine.
bool SetSuspendState(bool hibernate, bool force, bool wakeEventsDisabled);

constexpr std::uint8_t kBatteryFlagLow = 2;       // BATTERY_FLAG_LOW
constexpr std::uint8_t kBatteryFlagCritical = 4;  // BATTERY_FLAG_CRITICAL

// SYSTEM_POWER_STATUS, 12 bytes.
struct SystemPowerStatus {
  std::uint8_t acLineStatus;
  std::uint8_t batteryFlag;
  std::uint8_t batteryLifePercent;
  std::uint8_t systemStatusFlag;
  std::uint32_t batteryLifeTime;
  std::uint32_t batteryFullLifeTime;
};
static_assert(sizeof(SystemPowerStatus) == 12);
bool GetSystemPowerStatus(SystemPowerStatus* status);

}  // namespace platform
