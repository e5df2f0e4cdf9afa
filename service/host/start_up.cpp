// Process entry and service start-up.
#include "service/host/start_up.h"

#include <chrono>
#include <cstdio>
#include <cstring>

#include "platform/error.h"
#include "platform/file.h"
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

SharedRecord<platform::ServiceStatus> gServiceStatus;
platform::ServiceStatusHandle gServiceStatusHandle = nullptr;
platform::ProcessLifetime<platform::Event> gServiceStopEvent;
std::atomic<bool> gStopPathRuns{false};
platform::ProcessLifetime<ServiceThreads> gServiceThreads;

namespace {

constexpr std::chrono::seconds kHandlerPatience{5};
constexpr std::uint32_t kLogLimit = 0xA00000;  // 10 MiB
constexpr std::size_t kLogPathSize = 256;

// The power settings that the service asks to be told of, in their order.
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

// What SvcInit reports by hand, without a wait hint.
void ReportStatus(std::uint32_t state, std::uint32_t controlsAccepted, std::uint32_t exitCode,
                  std::uint32_t checkPoint) {
  SetReportedStatus(
      {platform::kServiceWin32OwnProcessType, state, controlsAccepted, exitCode, 0, checkPoint, 0});
}

void FailStart() { ReportStatus(platform::kServiceStopped, 0, platform::LastError(), 1); }

bool StartThread(int slot, platform::ThreadEntry entry) {
  platform::Thread& thread = gServiceThreads->thread[slot];
  thread = platform::CreateThread(entry, nullptr);
  return static_cast<bool>(thread);
}

void ServiceMain(std::uint32_t argc, char** argv) {
  (void)InitServiceLog();  // without a log the service runs all the same
  gServiceStatusHandle =
      platform::RegisterServiceCtrlHandlerExA(kServiceName, SvcCtrlHandler, nullptr);
  if (gServiceStatusHandle == nullptr) {
    const std::uint32_t error = platform::LastError();
    ReportServiceEvent("RegisterServiceCtrlHandler", platform::kEventError);
    platform::SetLastError(error);
    return ReportLastError(kSideLogKeyboardMouse, "RegisterServiceCtrlHandlerEx:");
  }
  for (const platform::Guid& setting : kPowerSettings)
    (void)platform::RegisterPowerSettingNotification(gServiceStatusHandle, setting);  // not needed
  ReportStatus(platform::kServiceStartPending, 0, 0, 0);
  SvcInit(argc, argv);
}

}  // namespace

void SetReportedStatus(const platform::ServiceStatus& status) {
  gServiceStatus.Store(status);
  // Without a service manager the report goes nowhere.
  (void)platform::SetServiceStatus(gServiceStatusHandle, status);
}

// A lock around each report won't do, since a manager may let no other report through while it
// waits for the handler.
void AwaitStopPath(std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  // Not turns: one may last a timer's tick of 16 ms.
  while (gStopPathRuns.load(std::memory_order_acquire) && std::chrono::steady_clock::now() < end)
    platform::Sleep(1);
}

bool InitServiceLog() {
  char szAllUsersProfile[platform::kMaxPath];
  if (!MakeLogFolder() || !platform::GetCommonAppDataFolder(szAllUsersProfile)) return false;
  char logFile[kLogPathSize];
  FormatTo(logFile, sizeof logFile, "%s%s\\tavrinLog.log", szAllUsersProfile, kLogFolder);
  if (!ServiceLog_Start(logFile, kLogLimit)) return false;
  LogBanner();
  return true;
}

void SvcInit(std::uint32_t, char**) {
  // A thread that is ended in an access to WMI may have the loader's lock if the access loads WMI's
  // libraries or lets them go. A Windows without this call does so each time.
  (void)platform::CoIncrementMTAUsage();
  DetectChassis();
  LogInfo("%s line: %d Starting", "SvcInit", 361);
  *gServiceStopEvent = platform::CreateEventA(true, false);
  if (!*gServiceStopEvent) return FailStart();
  LogInfo("Attempting OpenOrrinDevice");
  (void)OpenOrrinDevice(kRequestMode);  // without a device every request fails and is logged
  ReportServiceEvent("SvcInit-Before CreateThread", platform::kEventInformation);
  ComposeService();
  if (!StartThread(kServerThread, MyThreadFunction)) return FailStart();
  if (!StartThread(kReaderThread, intThreadFunction)) return FailStart();
  ReportServiceEvent("SvcInit-After CreateThread", platform::kEventInformation);
  ReportStatus(platform::kServiceRunning,
               platform::kServiceAcceptStop | platform::kServiceAcceptPreshutdown, 0, 0);
  (void)platform::WaitForSingleObject(*gServiceStopEvent, platform::kInfinite);  // stop, either way
  AwaitStopPath(kHandlerPatience);
  ReportStatus(platform::kServiceStopped, 0, 0, 3);
}

int RunProcess(int argc, char** argv) {
  (void)InitServiceLog();  // without a log the service runs all the same
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
