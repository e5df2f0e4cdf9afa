#include "platform/power.h"

#include <bit>

#include "platform/windows/runtime/windows_api.h"
// This needs windows.h.
#include <powrprof.h>

namespace platform {

static_assert(sizeof(SystemPowerStatus) == sizeof(SYSTEM_POWER_STATUS) &&
              offsetof(SystemPowerStatus, acLineStatus) ==
                  offsetof(SYSTEM_POWER_STATUS, ACLineStatus) &&
              offsetof(SystemPowerStatus, batteryFlag) ==
                  offsetof(SYSTEM_POWER_STATUS, BatteryFlag) &&
              offsetof(SystemPowerStatus, batteryLifePercent) ==
                  offsetof(SYSTEM_POWER_STATUS, BatteryLifePercent) &&
              offsetof(SystemPowerStatus, batteryLifeTime) ==
                  offsetof(SYSTEM_POWER_STATUS, BatteryLifeTime) &&
              offsetof(SystemPowerStatus, batteryFullLifeTime) ==
                  offsetof(SYSTEM_POWER_STATUS, BatteryFullLifeTime));
static_assert(kReasonMajorApplication == SHTDN_REASON_MAJOR_APPLICATION &&
              kBatteryFlagLow == BATTERY_FLAG_LOW && kBatteryFlagCritical == BATTERY_FLAG_CRITICAL);
static_assert(sizeof(Luid) == sizeof(LUID) && offsetof(Luid, high) == offsetof(LUID, HighPart));

void CloseToken(RawHandle raw) { ::CloseHandle(raw); }

Token OpenProcessToken() {
  HANDLE raw = nullptr;
  ::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &raw);
  return Token(raw);
}

bool LookupPrivilegeValueA(const char* name, Luid* luid) {
  LUID found;
  if (!::LookupPrivilegeValueA(nullptr, name, &found)) return false;
  *luid = std::bit_cast<Luid>(found);
  return true;
}

bool AdjustTokenPrivileges(const Token& token, const Luid& luid) {
  TOKEN_PRIVILEGES privileges{};
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Luid = std::bit_cast<LUID>(luid);
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  return ::AdjustTokenPrivileges(token.Raw(), FALSE, &privileges, 0, nullptr, nullptr) != FALSE;
}

bool InitiateSystemShutdownExA(const char* message, std::uint32_t timeoutSeconds, bool forceClose,
                               bool reboot, std::uint32_t reason) {
  return ::InitiateSystemShutdownExA(nullptr, const_cast<char*>(message), timeoutSeconds,
                                     forceClose, reboot, reason) != FALSE;
}

bool SetSuspendState(bool hibernate, bool force, bool wakeEventsDisabled) {
  return ::SetSuspendState(hibernate, force, wakeEventsDisabled) != FALSE;
}

bool GetSystemPowerStatus(SystemPowerStatus* status) {
  SYSTEM_POWER_STATUS found;
  if (!::GetSystemPowerStatus(&found)) return false;
  *status = std::bit_cast<SystemPowerStatus>(found);
  return true;
}

}  // namespace platform
