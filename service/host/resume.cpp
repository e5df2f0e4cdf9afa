#include "service/host/resume.h"

#include <cstdint>

#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/thread_end.h"
#include "service/host/service_control.h"
#include "service/inventory/status_report.h"
#include "service/mailbox/messages.h"

namespace stewardry {

namespace {

// The parameter is the report's number.
std::uint32_t RunResumeReport(void* number) {
  ReportMark mark{&gServiceControl->gResumeCount,
                  static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(number))};
  return SendSystemInfo(&mark);
}

}  // namespace

void ResumeReport() {
  if (!IsProvisioned()) {
    LogInfo("Skip non DASH commands to ORRIN after S0i3 resume for non Provisioned case");
    return;
  }
  platform::Thread& thread = gServiceControl->gServiceThreads[kResumeThread];
  // The older report is asked before its thread is ended: a thread that is ended anywhere may keep
  // the lock of the heap or the loader.
  const std::uint32_t number =
      gServiceControl->gResumeCount.fetch_add(1, std::memory_order_relaxed) + 1;
  if (thread) AwaitOrEndThread(thread, "TerminateThread for ORRIN_TAVRIN_CMD_S0i3_RESUME failed");
  thread.Reset();
  thread = platform::CreateThread(RunResumeReport, reinterpret_cast<void*>(std::uintptr_t{number}));
}

}  // namespace stewardry
