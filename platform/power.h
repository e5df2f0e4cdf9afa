// Privileges, the power calls and the power status. On Linux the power calls write a line to the
// lab's power.txt and never touch the machine.
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

// OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY): the service's own.
Token OpenProcessToken();
// LookupPrivilegeValueA(null, name).
bool LookupPrivilegeValueA(const char* name, Luid* luid);
// AdjustTokenPrivileges of one privilege to SE_PRIVILEGE_ENABLED, no previous state asked for.
bool AdjustTokenPrivileges(const Token& token, const Luid& luid);

constexpr std::uint32_t kReasonMajorApplication = 0x40000;  // SHTDN_REASON_MAJOR_APPLICATION

// InitiateSystemShutdownExA(null, message, timeout, forceClose, reboot, reason).
bool InitiateSystemShutdownExA(const char* message, std::uint32_t timeoutSeconds, bool forceClose,
                               bool reboot, std::uint32_t reason);
// SetSuspendState(hibernate, force, wakeEventsDisabled).
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
