// The control handler: stop, preshutdown, power and session events. A stop asks the two long-lived
// threads to exit and soon after ends them from outside, so it never waits for the firmware.
#pragma once

#include <cstdint>

namespace stewardry {

// Handles one control (LPHANDLER_FUNCTION_EX). Returns 0, NO_ERROR. The dispatcher's thread.
std::uint32_t SvcCtrlHandler(std::uint32_t control, std::uint32_t eventType, void* eventData,
                             void* context);

// Writes logon, logoff, lock and unlock to the side log.
void SvcHandleSessionChange(std::uint32_t control, std::uint32_t eventType, void* eventData,
                            void* context);

// Reports a state. A pending one has the next check point. Every state but SERVICE_START_PENDING
// accepts the stop control only. The dispatcher's thread.
void ReportSvcStatus(std::uint32_t currentState, std::uint32_t win32ExitCode,
                     std::uint32_t waitHint);

// Writes the lines of a user's logon to the side log. A KVM session continues.
void NotifyKvmTerminationEvents();

}  // namespace stewardry
