#include "service/host/control.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "platform/device.h"
#include "platform/error.h"
#include "platform/power.h"
#include "platform/service_manager.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/side_log.h"
#include "service/diagnostics/thread_end.h"
#include "service/gateway/listeners.h"
#include "service/host/start_up.h"
#include "service/inventory/reports.h"
#include "service/inventory/status_report.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/shared_region.h"
#include "service/mailbox/mailbox_link.h"
#include "service/mailbox/messages.h"
#include "service/mailbox/reader.h"
#include "service/standby/address_watch.h"
#include "service/standby/battery_report.h"
#include "service/standby/standby_state.h"

namespace stewardry {

namespace {

// Asks both threads first, so that they exit at the same time.
void EndThreads(const char* readerFailureLine) {
  AskServerToStop();
  AskReaderToStop();
  AwaitOrEndThread(gServiceControl->gServiceThreads[kServerThread], "TerminateThread failed");
  AwaitOrEndThread(gServiceControl->gServiceThreads[kReaderThread], readerFailureLine);
}

void StopService() {
  std::atomic<bool>& stopPathRuns = gServiceControl->gStopPathRuns;
  stopPathRuns.store(true, std::memory_order_relaxed);  // the stop event's signal publishes it
  LogInfo("SERVICE_CONTROL_STOP recevied\n");  // fixed log text, as below; its wording must stay
  ReportSvcStatus(platform::kServiceStopPending, 0, 0);
  gReports->gTavrinRunning.store(0, std::memory_order_relaxed);
  UnregisterNetworkEvent();
  LogInfo("CancelIO called service stop. Error status %d", platform::LastError());
  EndThreads("TerminateThread failed");
  if (!platform::CancelIoEx(gMailboxLink->gRequestDevice, nullptr))
    LogInfo("CancelIoEx failed. Error status %d", platform::LastError());
  // If this fails SvcInit waits on, and the service manager shows the stop pending.
  (void)platform::SetEvent(gServiceControl->gServiceStopEvent);
  ReportSvcStatus(platform::kServiceStopPending, 0, 0);
  ServiceLog_Close();
  stopPathRuns.store(false, std::memory_order_release);
}

// The service stays SERVICE_RUNNING, with its log open, until the system ends it.
void PrepareShutdown() {
  (void)SetS5Status();  // logs its own failure; the next steps don't depend on it
  LogInfo("Shutdown Command sent to ORRIN");
  LogInfo("CancelIO called preshutdown");
  EndThreads("Terminatethread failed");
  if (!platform::CancelIoEx(gMailboxLink->gRequestDevice, nullptr))
    LogInfo("CancelIoEx failed %d", platform::LastError());
}

void HandleBatteryEvent(const platform::SystemPowerStatus& spsPwr) {
  LogInfo("GUID_BATTERY_PERCENTAGE_REMAINING Event");
  if (spsPwr.batteryFlag == platform::kBatteryFlagLow) {
    LogInfo("Battery is Critical %d", spsPwr.batteryLifePercent);
    gStandby->gBatteryState.store(kBatteryIsCritical, std::memory_order_relaxed);
  } else if (spsPwr.batteryFlag == platform::kBatteryFlagCritical) {
    LogInfo("Battery is Drained %d", spsPwr.batteryLifePercent);
    gStandby->gBatteryState.store(kBatteryIsDrained, std::memory_order_relaxed);
  }
}

// Compares the first three fields, which differ between the settings.
bool IsSetting(const platform::Guid& guid, const platform::Guid& setting) {
  return guid.data1 == setting.data1 && guid.data2 == setting.data2 && guid.data3 == setting.data3;
}

void HandlePowerEvent(std::uint32_t eventType, const void* eventData) {
  if (eventData == nullptr) return;  // an event without a setting
  platform::PowerBroadcastSetting event;
  std::memcpy(&event, eventData, offsetof(platform::PowerBroadcastSetting, data) + 1);
  const platform::Guid& guid = event.powerSetting;
  char data4[sizeof guid.data4 + 1] = "";
  std::memcpy(data4, guid.data4, sizeof guid.data4);
  LogInfo("GUID Received 0x%x,0x%x,0x%x,0x%x", guid.data1, guid.data2, guid.data3,
          std::atoi(data4));
  platform::SystemPowerStatus spsPwr{};
  if (!platform::GetSystemPowerStatus(&spsPwr)) return;
  if (IsSetting(guid, platform::kGuidBatteryPercentageRemaining)) HandleBatteryEvent(spsPwr);
  if (IsSetting(guid, platform::kGuidAcdcPowerSource)) {
    LogInfo("Size of event %lu,%lu", event.dataLength, eventType);
    LogInfo("GUID_ACDC_POWER_SOURCE Event %lu", event.data[0]);
  }
  if (IsSetting(guid, platform::kGuidGlobalUserPresence))
    gStandby->gUserPresence.store(event.data[0], std::memory_order_relaxed);
}

}  // namespace

std::uint32_t SvcCtrlHandler(std::uint32_t control, std::uint32_t eventType, void* eventData,
                             void* context) {
  switch (control) {
    case platform::kControlStop:
      StopService();
      break;
    case platform::kControlInterrogate:
      break;
    case platform::kControlPowerEvent:
      HandlePowerEvent(eventType, eventData);
      break;
    case platform::kControlSessionChange:
      SideLog(kSideLogKeyboardMouse, "%s:SERVICE_CONTROL_SESSIONCHANGE recevied\n",
              "SvcCtrlHandler");
      SvcHandleSessionChange(control, eventType, eventData, context);
      break;
    case platform::kControlPreshutdown:
      PrepareShutdown();
      break;
    default:
      SideLog(kSideLogKeyboardMouse, "%s:SERVICE_CONTROL  %d recevied\n", "SvcCtrlHandler",
              control);
  }
  return 0;
}

void SvcHandleSessionChange(std::uint32_t, std::uint32_t eventType, void*, void*) {
  constexpr const char* kName = "SvcHandleSessionChange";
  if (eventType == platform::kSessionLogon) {
    const std::uint32_t count =
        gServiceControl->gSessionLogonCount.fetch_add(1, std::memory_order_relaxed) + 1;
    SideLog(kSideLogKeyboardMouse, "%s: WTS_SESSION_LOGON gSessionLogonCount %d", kName, count);
    NotifyKvmTerminationEvents();
  }
  if (eventType == platform::kSessionLogoff)
    SideLog(kSideLogKeyboardMouse, "%s: WTS_SESSION_LOGOFF", kName);
  if (eventType == platform::kSessionLock)
    SideLog(kSideLogKeyboardMouse, "%s: WTS_SESSION_LOCK", kName);
  if (eventType == platform::kSessionUnlock)
    SideLog(kSideLogKeyboardMouse, "%s: WTS_SESSION_UNLOCK", kName);
}

void ReportSvcStatus(std::uint32_t currentState, std::uint32_t win32ExitCode,
                     std::uint32_t waitHint) {
  const bool settled =
      currentState == platform::kServiceRunning || currentState == platform::kServiceStopped;
  SetReportedStatus(
      {platform::kServiceWin32OwnProcessType, currentState,
       currentState == platform::kServiceStartPending ? 0 : platform::kServiceAcceptStop,
       win32ExitCode, 0, settled ? 0 : gServiceControl->nextCheckPoint++, waitHint});
  SideLog(kSideLogKeyboardMouse, "%s: CurrentServiceState %d\n", "ReportSvcStatus", currentState);
}

// A logon has no other effect: a session continues, with an agent that its watch restarts if
// needed. Nothing stops and no reboot follows; the last line is a fixed log text.
void NotifyKvmTerminationEvents() {
  constexpr const char* kName = "NotifyKvmTerminationEvents";
  constexpr std::uint32_t kTracedLogons = 2;  // later ones have no line about the region
  const bool ready = gKvm->gKeyboardMouseReady.load(std::memory_order_relaxed) != 0;
  SideLog(kSideLogKeyboardMouse, "%s: KVM", ready ? "enabled" : "disabled");
  if (!ready) return;
  SideLog(kSideLogKeyboardMouse, "%s:KVM enabled\n", kName);
  if (gServiceControl->gSessionLogonCount.load(std::memory_order_relaxed) <= kTracedLogons) {
    const bool hasRegion = gKvm->KeyBoardBufferVirtualAddress.load(std::memory_order_relaxed) != 0;
    SideLog(kSideLogKeyboardMouse, "%s",
            hasRegion ? "Requested Terminate KVM session\n" : "Keyboard ring buffer invalid\n");
  }
  SideLog(kSideLogKeyboardMouse, "%s: KVM session terminated and Reboot initiated\n", kName);
}

}  // namespace stewardry
