// The state of the host room, one record of the process.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/event.h"
#include "platform/service_manager.h"
#include "platform/thread.h"
#include "service/mailbox/shared_record.h"

namespace stewardry {

// The places of gServiceThreads: the server, the reader, the latest resume report.
constexpr int kServerThread = 0;
constexpr int kReaderThread = 1;
constexpr int kResumeThread = 2;

struct ServiceControl {
  // Written by the service main before it reports SERVICE_RUNNING; no control arrives before that.
  // gServiceThreads[kResumeThread] is the reader thread's own.
  platform::ServiceStatusHandle gServiceStatusHandle = nullptr;  // null in a foreground run
  platform::Event gServiceStopEvent;  // manual reset; the stop sets it, SvcInit waits for it
  platform::Thread gServiceThreads[3];

  // Written by the service main and the control handler; handed to the service manager.
  SharedRecord<platform::ServiceStatus> gServiceStatus;

  // Written by the control handler's thread. gStopPathRuns is true while it stops the service; its
  // release and SvcInit's acquire order the handler's last report before SERVICE_STOPPED.
  std::atomic<bool> gStopPathRuns{false};
  std::atomic<std::uint32_t> gSessionLogonCount{0};  // logons since the start; relaxed
  std::uint32_t nextCheckPoint = 1;

  // The server thread's own.
  bool gReportDone = false;  // the start-up report has been made

  // Written by the reader thread: the number of the latest resume report. A report that reads
  // another number than its own ends. Relaxed: it publishes nothing.
  std::atomic<std::uint32_t> gResumeCount{0};
};

extern platform::ProcessLifetime<ServiceControl> gServiceControl;

}  // namespace stewardry
