// Power calls that never touch the machine: each appends one line to the lab's power.txt.
#include "platform/power.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "platform/error.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/token_record.h"

namespace platform {

namespace {

const char* YesNo(bool value) { return value ? "true" : "false"; }

}  // namespace

void CloseToken(RawHandle raw) {
  gate::Note("CloseHandle");
  delete static_cast<TokenRecord*>(raw);
}

Token OpenProcessToken() {
  if (gate::Fails("OpenProcessToken")) return Token();
  return Token(new TokenRecord{::geteuid()});
}

bool LookupPrivilegeValueA(const char* name, Luid* luid) {
  if (gate::Fails("LookupPrivilegeValueA", "%s", name)) return false;
  *luid = {19, 0};  // SE_SHUTDOWN_PRIVILEGE
  return true;
}

bool AdjustTokenPrivileges(const Token&, const Luid& luid) {
  if (gate::Fails("AdjustTokenPrivileges", "%u", luid.low)) return false;
  SetLastError(kErrorSuccess);  // the user holds every privilege
  return true;
}

bool InitiateSystemShutdownExA(const char* message, std::uint32_t timeoutSeconds, bool forceClose,
                               bool reboot, std::uint32_t reason) {
  char line[200];
  std::snprintf(line, sizeof line, "message=%s timeout=%u force=%s reboot=%s reason=0x%X",
                message != nullptr ? message : "none", timeoutSeconds, YesNo(forceClose),
                YesNo(reboot), reason);
  if (gate::Fails("InitiateSystemShutdownExA", "%s", line)) return false;
  AppendLabLine("power.txt", std::string("InitiateSystemShutdownExA ") + line);
  return true;
}

bool SetSuspendState(bool hibernate, bool force, bool wakeEventsDisabled) {
  char line[100];
  std::snprintf(line, sizeof line, "hibernate=%s force=%s wakeEventsDisabled=%s", YesNo(hibernate),
                YesNo(force), YesNo(wakeEventsDisabled));
  if (gate::Fails("SetSuspendState", "%s", line)) return false;
  AppendLabLine("power.txt", std::string("SetSuspendState ") + line);
  return true;
}

// The lab's battery.txt holds three numbers: AC line status, battery flag, percent. Without it the
// host is a desktop on line power: flag 128 (no battery), percent 255 (unknown).
bool GetSystemPowerStatus(SystemPowerStatus* status) {
  if (gate::Fails("GetSystemPowerStatus")) return false;
  unsigned acLine = 1, flag = 128, percent = 255;
  std::ifstream(LabPath("battery.txt")) >> acLine >> flag >> percent;
  *status = {static_cast<std::uint8_t>(acLine),
             static_cast<std::uint8_t>(flag),
             static_cast<std::uint8_t>(percent),
             0,
             0xFFFFFFFF,
             0xFFFFFFFF};
  return true;
}

}  // namespace platform
