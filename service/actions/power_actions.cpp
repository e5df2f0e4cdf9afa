#include "service/actions/power_actions.h"

#include <span>

#include "platform/error.h"
#include "platform/power.h"
#include "platform/thread.h"
#include "service/actions/actions_state.h"
#include "service/diagnostics/service_log.h"

namespace stewardry {

platform::ProcessLifetime<ActionsState> gActions;

namespace {

constexpr std::uint32_t kDelayMilliseconds = 2000;
constexpr char kShutdownPrivilege[] = "SeShutdownPrivilege";

bool ShutDown(bool reboot) {
  return platform::InitiateSystemShutdownExA(nullptr, 0, true, reboot,
                                             platform::kReasonMajorApplication);
}
bool ShutDownLater(bool reboot) {
  return platform::InitiateSystemShutdownExA("DASH initiated power command", 5, false, reboot, 0);
}
bool Suspend(bool hibernate) { return platform::SetSuspendState(hibernate, true, false); }

struct Action {
  std::uint32_t option;
  const char* line;
  bool (*call)(bool);
  bool argument;
};
constexpr Action kActions[] = {
    {kPowerShutdown, "Shutdown initiated", ShutDown, false},
    {kPowerReboot, "Reboot initiated", ShutDown, true},
    {kPowerHibernate, "Hibernate initiated", Suspend, true},
    {kPowerSleep, "Sleep initiated", Suspend, false},
};
constexpr Action kNoticedShutdown = {kPowerShutdown, "Shutdown initiated", ShutDownLater, false};

// Enables the shutdown privilege in *token. Returns false after a logged failure.
bool EnableShutdownPrivilege(platform::Token* token) {
  *token = platform::OpenProcessToken();
  if (!*token) {
    LogInfo("Open Process Token Failed %d", platform::LastError());
    return false;
  }
  platform::Luid luid{};
  if (!platform::LookupPrivilegeValueA(kShutdownPrivilege, &luid)) {
    const std::uint32_t error = platform::LastError();
    token->Reset();
    LogInfo("LookupPrivilegeValue Failed %d", error);
    return false;
  }
  if (platform::AdjustTokenPrivileges(*token, luid)) return true;
  LogInfo("AdjustTokenPrivileges Failed %d", platform::LastError());
  return false;
}

// Returns whether the system accepted the request; a failure is logged.
bool PerformAction(std::span<const Action> actions, std::uint32_t option) {
  platform::Token token;
  if (!EnableShutdownPrivilege(&token)) return false;
  for (const Action& action : actions) {
    if (action.option != option) continue;
    LogInfo("%s", action.line);
    if (action.call(action.argument)) return true;
    LogInfo("Returned error %d", platform::LastError());
  }
  return false;
}

void ApplyOrLog(std::uint8_t option) {
  if (!PerformAction(kActions, option)) LogInfo(" Power option failed PowerOption: 0x%x", option);
}

void DelayThen(std::uint8_t option) {
  platform::Sleep(kDelayMilliseconds);
  gActions->gPowerOption.store(kPowerNone, std::memory_order_relaxed);
  ApplyOrLog(option);
}

// The thread's handle is not kept: the thread ends with its action.
bool StartDelay(platform::ThreadEntry entry) {
  return static_cast<bool>(platform::CreateThread(entry, nullptr));
}

}  // namespace

std::uint32_t ApplyPowerOption(std::uint32_t powerOption) {
  return PerformAction(kActions, powerOption) ? 1 : 0;
}

std::uint32_t ShutDownWithNotice() {
  return PerformAction({&kNoticedShutdown, 1}, kPowerShutdown) ? 1 : 0;
}

bool ActOnPowerOption() {
  const std::uint8_t option = gActions->gPowerOption.load(std::memory_order_relaxed);
  if (option == kPowerShutdown || option == kPowerReboot) {
    gActions->gPowerOption.store(kPowerNone, std::memory_order_relaxed);
    ApplyOrLog(option);
  } else if (option == kPowerHibernate && !StartDelay(DelayHibernate)) {
    LogInfo("Hibernate power event thread failed");
    return false;
  } else if (option == kPowerSleep && !StartDelay(DelaySleep)) {
    LogInfo("Sleep power event thread failed");
    return false;
  }
  return true;
}

void RebootNonDash() {
  if (!PerformAction(kActions, kPowerReboot)) LogInfo("Returned error %d", platform::LastError());
}

std::uint32_t DelayHibernate(void*) {
  LogInfo("Delaying Hibernate for 2 seconds");
  DelayThen(kPowerHibernate);
  return 0;
}

std::uint32_t DelaySleep(void*) {
  LogInfo("Delaying Sleep for 2 seconds");
  DelayThen(kPowerSleep);
  return 0;
}

}  // namespace stewardry
