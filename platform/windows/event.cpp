#include "platform/event.h"

#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(kInfinite == INFINITE && kWaitObject0 == WAIT_OBJECT_0 &&
              kWaitAbandoned == WAIT_ABANDONED && kWaitTimeout == WAIT_TIMEOUT &&
              kWaitFailed == WAIT_FAILED);

void CloseEvent(RawHandle raw) { ::CloseHandle(raw); }

Event CreateEventA(bool manualReset, bool signalled) {
  return Event(::CreateEventA(nullptr, manualReset, signalled, nullptr));
}

bool SetEvent(const Event& event) { return ::SetEvent(event.Raw()) != FALSE; }

bool ResetEvent(const Event& event) { return ::ResetEvent(event.Raw()) != FALSE; }

std::uint32_t WaitForSingleObject(const Event& event, std::uint32_t milliseconds) {
  return ::WaitForSingleObject(event.Raw(), milliseconds);
}

}  // namespace platform
