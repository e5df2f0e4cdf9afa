#include "service/host/server_thread.h"

#include <atomic>
#include "platform/service_manager.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/gateway/listeners.h"
#include "service/host/event_entries.h"
#include "service/host/pipe_threads.h"
#include "service/host/service_control.h"
#include "service/inventory/link_watch.h"
#include "service/inventory/status_report.h"
#include "service/mailbox/mailbox_link.h"
#include "service/mailbox/messages.h"
#include "sock/sock.h"

namespace stewardry {

namespace {

// The handles aren't kept: the threads run until the process ends. If one can't be started, its
// pipe has no client and the service continues.
void StartPipeThreads() {
  for (const platform::ThreadEntry entry :
       {TrayPipeThread, SoftwareUpgradePipeThread, ServiceToTrayUIThread})
    (void)platform::CreateThread(entry, nullptr);
}

void MakeStartupReport() {
  if (gServiceControl->gReportDone) return;
  gServiceControl->gReportDone = true;
  std::uint8_t status = kOrrinNoAnswer;
  (void)GetOrrinStatus(&status);  // the firmware needs the request; the answer has no effect here
  ReportMark mark = ServerMark();
  (void)SendSystemInfo(&mark);  // always 0
}

}  // namespace

void ServerStartup() {
  SetVersionText(&gMailboxLink->gTavrinVersionInfo, kVersionNotAvailable);
  StartPipeThreads();
  (void)Sock_Start();  // after a failure the bind fails and logs it
  WmiLog_Start();
  if (!ServerStops()) MakeStartupReport();
  if (ServerStops()) return;
  (void)WlanRegisterWifiNotification();  // logs its own failure; the link is then not watched
  // Only the line: while KVM is off the peer is 0. While it is on, the firmware has named the peer,
  // perhaps during the report, and clearing it would admit any viewer.
  LogInfo("Initializing KVM IP and Port to 0");
}

std::uint32_t MyThreadFunction(void*) {
  // Fixed log text; the number is not a line of this file.
  LogInfo("%s ln: %d Before RunServer", "MyThreadFunction", 448);
  ReportServiceEvent("MyThreadFunction-Before ServerMain", platform::kEventInformation);
  ServerStartup();
  RunServer();
  return 0;
}

}  // namespace stewardry
