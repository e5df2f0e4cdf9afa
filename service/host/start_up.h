// The process: installer, foreground run and service in one executable, and the order in which the
// parts of the service start.
#pragma once

#include <chrono>
#include <cstdint>

#include "platform/service_manager.h"
#include "service/host/service_control.h"

namespace stewardry {

// Stores the status and reports it to the service manager. Any thread.
void SetReportedStatus(const platform::ServiceStatus& status);

// Runs what the first argument selects: "ult" a foreground run, "install" the installer, anything
// else the service. Returns 0.
int RunProcess(int argc, char** argv);

// Blocks until the control handler has stopped the service, at most for `patience`, so that
// SERVICE_STOPPED is the last report. The manager would show a pending one after it for ever, or
// take the end of the process for a failure. SvcInit's thread.
void AwaitStopPath(std::chrono::milliseconds patience);

// Creates the log folders, starts the service log and writes the banner. Returns true if the log is
// open.
bool InitServiceLog();

// Runs the service. Returns once it has stopped or could not be started.
void SvcInit(std::uint32_t argc, char** argv);

}  // namespace stewardry
