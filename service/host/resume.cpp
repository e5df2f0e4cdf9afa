// The resume report.
#include "service/host/resume.h"

#include <atomic>
#include <cstdint>

#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/thread_end.h"
#include "service/host/start_up.h"
#include "service/inventory/status_report.h"
#include "service/mailbox/messages.h"

namespace stewardry {

namespace {

// The resume report that is wanted: the latest one. Written by the reader thread; a report that
// finds another number than its own leaves.
std::atomic<std::uint32_t> gResumeCount{0};

// The parameter is the report's number.
std::uint32_t RunResumeReport(void* number) {
  ReportMark mark{&gResumeCount,
                  static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(number))};
  return SendSystemInfo(&mark);
}

}  // namespace

void ResumeReport() {
  if (!IsProvisioned()) {
    LogInfo("Skip non DASH commands to ORRIN after S0i3 resume for non Provisioned case");
    return;
  }
  platform::Thread& thread = gServiceThreads->thread[kResumeThread];
  const std::uint32_t number = gResumeCount.fetch_add(1, std::memory_order_relaxed) + 1;
  // A thread that is ended where it stands may take the heap or the loader's lock with it, which
  // a service that lives on needs. So the older report is asked first.
  if (thread) AwaitOrEndThread(thread, "TerminateThread for ORRIN_TAVRIN_CMD_S0i3_RESUME failed");
  thread.Reset();
  thread = platform::CreateThread(RunResumeReport, reinterpret_cast<void*>(std::uintptr_t{number}));
}

}  // namespace stewardry
