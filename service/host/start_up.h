// The process: how one executable is the installer, a foreground run and the service, and the
// order in which the parts of the system come up.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/event.h"
#include "platform/service_manager.h"
#include "platform/thread.h"
#include "service/mailbox/shared_record.h"

namespace stewardry {

// The record handed to the service manager. Written by the service main and the control handler.
extern SharedRecord<platform::ServiceStatus> gServiceStatus;
// Null in a foreground run. Written by the service main before any report, which every later
// report on another thread follows.
extern platform::ServiceStatusHandle gServiceStatusHandle;
// Keeps the status and reports it to the service manager. Any thread.
void SetReportedStatus(const platform::ServiceStatus& status);
// True while the control handler stops the service. Written by the handler, read by SvcInit; its
// release and SvcInit's acquire put the handler's last report before SERVICE_STOPPED.
extern std::atomic<bool> gStopPathRuns;
// Manual reset; signalled by the stop path, waited for by SvcInit.
extern platform::ProcessLifetime<platform::Event> gServiceStopEvent;

// The service's threads: [0] server, [1] reader, [2] the latest resume report. The first two are
// written before SERVICE_RUNNING is reported, and no control arrives before that; the third is the
// reader thread's alone.
struct ServiceThreads {
  platform::Thread thread[3];
};
constexpr int kServerThread = 0;
constexpr int kReaderThread = 1;
constexpr int kResumeThread = 2;
extern platform::ProcessLifetime<ServiceThreads> gServiceThreads;

// The process's course, by its first argument: "ult" in the foreground, "install", or the service.
// Always 0.
int RunProcess(int argc, char** argv);

// Lets the control handler come to its end, so that SERVICE_STOPPED is the last report: a pending
// one behind it would stand for ever, or make the manager take the end of the process for a
// failure. A handler that hangs is given up after `patience`. SvcInit's thread.
void AwaitStopPath(std::chrono::milliseconds patience);

// Makes the log folders, starts the service log and writes the banner. True if the log is open.
bool InitServiceLog();

// The body of the service; returns when it has stopped, or could not be started.
void SvcInit(std::uint32_t argc, char** argv);

}  // namespace stewardry
