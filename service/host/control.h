// The control handler: stop, preshutdown, power and session events. A stop asks the two long-lived
// threads to exit and soon after ends them from outside, so it never waits for the firmware.
#pragma once

#include <cstdint>

#include "platform/guid.h"

namespace stewardry {

// The power settings that the service registers for, with the names of Winnt.h.
inline constexpr platform::Guid kGuidAcdcPowerSource = {
    0x5D3E9A59, 0xE9D5, 0x4B00, {0xA6, 0xBD, 0xFF, 0x34, 0xFF, 0x51, 0x65, 0x48}};
inline constexpr platform::Guid kGuidBatteryPercentageRemaining = {
    0xA7AD8041, 0xB45A, 0x4CAE, {0x87, 0xA3, 0xEE, 0xCB, 0xB4, 0x68, 0xA9, 0xE1}};
inline constexpr platform::Guid kGuidGlobalUserPresence = {
    0x786E8A1D, 0xB427, 0x4344, {0x92, 0x07, 0x09, 0xE7, 0x0B, 0xDC, 0xBE, 0xA9}};

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
