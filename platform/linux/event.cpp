// Events on the waiting core.
#include "platform/event.h"

#include "platform/error.h"
#include "platform/linux/runtime/event_state.h"
#include "platform/linux/runtime/gate.h"

namespace platform {

void SignalLocked(Wakes* wakes, EventState& event) {
  event.signalled = true;
  wakes->Add(event.changed);
}

void CloseEvent(RawHandle raw) {
  gate::Note("CloseHandle");
  delete static_cast<EventState*>(raw);
}

Event CreateEventA(bool manualReset, bool signalled) {
  if (gate::Fails("CreateEventA")) return Event();
  auto* event = new EventState;
  event->manualReset = manualReset;
  event->signalled = signalled;
  return Event(event);
}

bool SetEvent(const Event& event) {
  if (gate::Fails("SetEvent")) return false;
  if (!event) return SetLastError(kErrorInvalidHandle), false;
  Wakes wakes;
  std::lock_guard guard(WaitLock());
  SignalLocked(&wakes, StateOf(event));
  return true;
}

bool ResetEvent(const Event& event) {
  if (gate::Fails("ResetEvent")) return false;
  if (!event) return SetLastError(kErrorInvalidHandle), false;
  std::lock_guard guard(WaitLock());
  StateOf(event).signalled = false;
  return true;
}

std::uint32_t WaitForSingleObject(const Event& event, std::uint32_t milliseconds) {
  if (gate::Fails("WaitForSingleObject")) return kWaitFailed;
  if (!event) return SetLastError(kErrorInvalidHandle), kWaitFailed;
  EventState& state = StateOf(event);
  std::unique_lock lock(WaitLock());
  if (!WaitUntil(lock, state.changed, DeadlineAfter(milliseconds), [&] { return state.signalled; }))
    return kWaitTimeout;
  if (!state.manualReset) state.signalled = false;
  return kWaitObject0;
}

}  // namespace platform
