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

// Creates an unnamed event. An auto-reset event releases one waiting thread and resets itself.
Event CreateEventA(bool manualReset, bool signalled);

bool SetEvent(const Event& event);
bool ResetEvent(const Event& event);

// Blocks until the event is signalled, for at most `milliseconds` (kInfinite for no limit). Returns
// kWaitObject0, kWaitTimeout or kWaitFailed. On Linux a terminated thread ends here.
std::uint32_t WaitForSingleObject(const Event& event, std::uint32_t milliseconds);

}  // namespace platform
