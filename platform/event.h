// Events to wait on, and the results of a wait.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

constexpr std::uint32_t kInfinite = 0xFFFFFFFF;    // INFINITE
constexpr std::uint32_t kWaitObject0 = 0;          // WAIT_OBJECT_0
constexpr std::uint32_t kWaitAbandoned = 0x80;     // WAIT_ABANDONED
constexpr std::uint32_t kWaitTimeout = 258;        // WAIT_TIMEOUT
constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;  // WAIT_FAILED

void CloseEvent(RawHandle raw);
using Event = Owned<struct EventTag, CloseEvent>;

// CreateEventA, unnamed. An auto-reset event lets one waiter through and resets itself. Gives an
// empty owner on failure, with the last error set. Any thread.
Event CreateEventA(bool manualReset, bool signalled);

// SetEvent, ResetEvent: true on success. Any thread.
bool SetEvent(const Event& event);
bool ResetEvent(const Event& event);

// WaitForSingleObject: waits up to `milliseconds` (kInfinite for no bound) and gives kWaitObject0,
// kWaitTimeout or kWaitFailed. On Linux a thread that was terminated leaves from here.
std::uint32_t WaitForSingleObject(const Event& event, std::uint32_t milliseconds);

}  // namespace platform
