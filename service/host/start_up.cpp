#include "service/host/start_up.h"

#include <cassert>
#include <chrono>

#include "platform/error.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "platform/wmi.h"
#include "service/diagnostics/log_file.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/side_log.h"
#include "service/host/command_table.h"
#include "service/host/control.h"
#include "service/host/event_entries.h"
#include "service/host/install.h"
#include "service/host/log_folder.h"
#include "service/host/server_thread.h"
#include "service/inventory/status_report.h"
#include "service/mailbox/device.h"
#include "service/mailbox/reader.h"
#include "text/letter_case.h"

namespace stewardry {

platform::ProcessLifetime<ServiceControl> gServiceControl;

namespace {

constexpr std::chrono::seconds kHandlerPatience{5};
constexpr std::size_t kLogPathSize = 256;

// The power settings that the service registers for, in their order.
constexpr platform::Guid kPowerSettings[] = {platform::kGuidAcdcPowerSource,
                                             platform::kGuidBatteryPercentageRemaining,
                                             platform::kGuidGlobalUserPresence};

void LogBanner() {
  char buf[128];
  if (!ReadVerLine(buf, sizeof buf)) {
    LogInfo("Quillon Stewardry Service %s started...", kServiceVersion);
    return;
  }
  LogInfo("Quillon Stewardry Service %s started on Windows version: %s...", kServiceVersion,
          static_cast<const char*>(buf));
}

// Reports a state of the start or the end, without a wait hint.
void ReportStatus(std::uint32_t state, std::uint32_t controlsAccepted, std::uint32_t exitCode,
                  std::uint32_t checkPoint) {
  SetReportedStatus(
      {platform::kServiceWin32OwnProcessType, state, controlsAccepted, exitCode, 0, checkPoint, 0});
}

void FailStart() { ReportStatus(platform::kServiceStopped, 0, platform::LastError(), 1); }

bool StartThread(int slot, platform::ThreadEntry entry) {
  platform::Thread& thread = gServiceControl->gServiceThreads[slot];
  assert(!thread);
  thread = platform::CreateThread(entry, nullptr);
  return static_cast<bool>(thread);
}

void ServiceMain(std::uint32_t argc, char** argv) {
  (void)InitServiceLog();  // the service also runs without a log
  const platform::ServiceStatusHandle handle =
      platform::RegisterServiceCtrlHandlerExA(kServiceName, SvcCtrlHandler, nullptr);
  gServiceControl->gServiceStatusHandle = handle;
  if (handle == nullptr) {
    const std::uint32_t error = platform::LastError();
    ReportServiceEvent("RegisterServiceCtrlHandler", platform::kEventError);
    platform::SetLastError(error);
    return ReportLastError(kSideLogKeyboardMouse, "RegisterServiceCtrlHandlerEx:");
  }
  for (const platform::Guid& setting : kPowerSettings)
    (void)platform::RegisterPowerSettingNotification(handle, setting);  // works without it
  ReportStatus(platform::kServiceStartPending, 0, 0, 0);
  SvcInit(argc, argv);
}

}  // namespace

void SetReportedStatus(const platform::ServiceStatus& status) {
  gServiceControl->gServiceStatus.Store(status);
  // Fails in a foreground run, which has no service manager.
  (void)platform::SetServiceStatus(gServiceControl->gServiceStatusHandle, status);
}

// A lock around each report would not work: a manager may accept no other report while it waits for
// the handler.
void AwaitStopPath(std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  // The clock and not the number of sleeps, each of which may last a timer's tick of 16 ms.
  const std::atomic<bool>& runs = gServiceControl->gStopPathRuns;
  while (runs.load(std::memory_order_acquire) && std::chrono::steady_clock::now() < end)
    platform::Sleep(1);
}

bool InitServiceLog() {
  char szAllUsersProfile[platform::kMaxPath];
  if (!MakeLogFolder() || !platform::GetCommonAppDataFolder(szAllUsersProfile)) return false;
  char logFile[kLogPathSize];
  FormatTo(logFile, sizeof logFile, "%s%s\\%s", szAllUsersProfile, kLogFolder, kServiceLogFile);
  if (!ServiceLog_Start(logFile, kLogLimit)) return false;
  LogBanner();
  return true;
}

void SvcInit(std::uint32_t, char**) {
  // Keeps WMI's libraries loaded. A thread that is ended in an access to WMI which loads or frees
  // them may keep the loader's lock. A Windows without this call loads and frees them each time.
  (void)platform::CoIncrementMTAUsage();
  DetectChassis();
  // Fixed log text, as in RunProcess; the number is not a line of this file.
  LogInfo("%s line: %d Starting", "SvcInit", 361);
  platform::Event& stopEvent = gServiceControl->gServiceStopEvent;
  stopEvent = platform::CreateEventA(true, false);
  if (!stopEvent) return FailStart();
  LogInfo("Attempting OpenOrrinDevice");
  (void)OpenOrrinDevice(kRequestMode);  // without a device each request fails and logs it
  ReportServiceEvent("SvcInit-Before CreateThread", platform::kEventInformation);
  ComposeService();
  if (!StartThread(kServerThread, MyThreadFunction)) return FailStart();
  if (!StartThread(kReaderThread, intThreadFunction)) return FailStart();
  ReportServiceEvent("SvcInit-After CreateThread", platform::kEventInformation);
  ReportStatus(platform::kServiceRunning,
               platform::kServiceAcceptStop | platform::kServiceAcceptPreshutdown, 0, 0);
  (void)platform::WaitForSingleObject(stopEvent, platform::kInfinite);  // a failed wait stops too
  AwaitStopPath(kHandlerPatience);
  ReportStatus(platform::kServiceStopped, 0, 0, 3);
}

int RunProcess(int argc, char** argv) {
  (void)InitServiceLog();  // the process also runs without a log
  const char* word = argc > 1 ? argv[1] : "";
  if (EqualIgnoringCase(word, "ult")) {
    SvcInit(0, nullptr);
    return 0;
  }
  LogInfo("%s line: %d Starting", "main", 157);
  if (EqualIgnoringCase(word, "install")) {
    LogInfo("%s %d SvcInstall", "main", 160);
    SvcInstall();
    return 0;
  }
  if (!platform::StartServiceCtrlDispatcherA(kServiceName, ServiceMain))
    ReportServiceEvent("StartServiceCtrlDispatcher", platform::kEventError);
  return 0;
}

}  // namespace stewardry
