// The resume report.
#include "service/host/resume.h"

#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/host/start_up.h"
#include "service/inventory/status_report.h"
#include "service/mailbox/messages.h"

namespace stewardry {

namespace {

void EndEarlierReport(const platform::Thread& thread) {
  if (!thread) return;
  std::uint32_t exitCode = 0;
  if (!platform::GetExitCodeThread(thread, &exitCode)) LogInfo("GetExitCodeThread failed");
  if (!platform::TerminateThread(thread, exitCode))
    LogInfo("TerminateThread for ORRIN_TAVRIN_CMD_S0i3_RESUME failed");
}

}  // namespace

void ResumeReport() {
  if (!IsProvisioned()) {
    LogInfo("Skip non DASH commands to ORRIN after S0i3 resume for non Provisioned case");
    return;
  }
  platform::Thread& thread = gServiceThreads->thread[kResumeThread];
  EndEarlierReport(thread);
  thread.Reset();
  thread = platform::CreateThread(SendSystemInfo, nullptr);
}

}  // namespace stewardry
