// The server thread.
#include "service/host/server_thread.h"

#include <atomic>

#include "platform/service_manager.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/gateway/listeners.h"
#include "service/host/event_entries.h"
#include "service/host/pipe_threads.h"
#include "service/inventory/link_watch.h"
#include "service/inventory/status_report.h"
#include "service/mailbox/messages.h"
#include "sock/sock.h"

namespace stewardry {

namespace {

// The start-up report has been made. The server thread's alone.
bool gReportDone = false;

// The handles aren't kept: the threads run to the process's end. One that can't be started leaves
// its pipe without a client, and the service goes on.
void StartPipeThreads() {
  for (const platform::ThreadEntry entry :
       {TrayPipeThread, SoftwareUpgradePipeThread, ServiceToTrayUIThread})
    (void)platform::CreateThread(entry, nullptr);
}

void MakeStartupReport() {
  if (gReportDone) return;
  gReportDone = true;
  std::uint8_t status = kOrrinNoAnswer;
  GetOrrinStatus(&status);  // asked for the firmware's sake; the answer changes nothing here
  ReportMark mark = ServerMark();
  SendSystemInfo(&mark);
}

}  // namespace

void ServerStartup() {
  SetVersionText(&gTavrinVersionInfo, kVersionNotAvailable);
  StartPipeThreads();
  (void)Sock_Start();  // without sockets the bind fails and says so
  WmiLog_Start();
  if (!ServerStops()) MakeStartupReport();
  if (ServerStops()) return;
  (void)WlanRegisterWifiNotification();  // logs its own failure; the link then goes unwatched
  // Nothing is left to store: while KVM is off the peer is 0, from the process's start as from each
  // session's end. While it is on, the peer is the one that the firmware has named to the reader
  // thread, perhaps during the report; to wipe that out would let anybody in.
  LogInfo("Initializing KVM IP and Port to 0");
}

std::uint32_t MyThreadFunction(void*) {
  LogInfo("%s ln: %d Before RunServer", "MyThreadFunction", 448);
  ReportServiceEvent("MyThreadFunction-Before ServerMain", platform::kEventInformation);
  ServerStartup();
  RunServer();
  return 0;
}

}  // namespace stewardry
