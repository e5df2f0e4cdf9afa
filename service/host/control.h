// What the service manager calls: stop, preshutdown, power and session events. Stopping waits for
// nobody: the two long-lived threads are asked to leave, and ended from outside soon after.
#pragma once

#include <atomic>
#include <cstdint>

namespace stewardry {

// Logon events since the service started.
extern std::atomic<std::uint32_t> gSessionLogonCount;

// LPHANDLER_FUNCTION_EX. Always 0 (NO_ERROR). Runs on the dispatcher's thread.
std::uint32_t SvcCtrlHandler(std::uint32_t control, std::uint32_t eventType, void* eventData,
                             void* context);

// Notes logon, logoff, lock and unlock in the side log.
void SvcHandleSessionChange(std::uint32_t control, std::uint32_t eventType, void* eventData,
                            void* context);

// Reports a state; one that isn't running or stopped carries the next check point. Every state but
// SERVICE_START_PENDING accepts the stop control alone.
void ReportSvcStatus(std::uint32_t currentState, std::uint32_t win32ExitCode,
                     std::uint32_t waitHint);

// What a user's logon means to KVM: a trace in the side log. A session that is up goes on.
void NotifyKvmTerminationEvents();

}  // namespace stewardry
