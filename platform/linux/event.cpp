#include "platform/event.h"

#include <memory>

#include "platform/linux/runtime/event_state.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

void CloseEvent(RawHandle raw) {
  gate::Note("CloseHandle");
  delete static_cast<EventState*>(raw);
}

Event CreateEventA(bool manualReset, bool signalled) {
  if (gate::Fails("CreateEventA")) return Event();
  auto event = std::make_unique<EventState>();
  event->manualReset = manualReset;
  event->signalled = signalled;
  return Event(event.release());
}

bool SetEvent(const Event& event) {
  if (gate::Fails("SetEvent")) return false;
  if (!event) return Fail(kErrorInvalidHandle);
  Wakes wakes;
  std::lock_guard guard(WaitLock());
  SignalLocked(&wakes, StateOf(event));
  return true;
}

bool ResetEvent(const Event& event) {
  if (gate::Fails("ResetEvent")) return false;
  if (!event) return Fail(kErrorInvalidHandle);
  std::lock_guard guard(WaitLock());
  StateOf(event).signalled = false;
  return true;
}

std::uint32_t WaitForSingleObject(const Event& event, std::uint32_t milliseconds) {
  if (gate::Fails("WaitForSingleObject")) return kWaitFailed;
  if (!event) return Fail(kErrorInvalidHandle, kWaitFailed);
  EventState& state = StateOf(event);
  EventWait wait(&state);
  if (!wait.Until(DeadlineAfter(milliseconds), [&] { return state.signalled; }))
    return kWaitTimeout;
  if (!state.manualReset) state.signalled = false;
  return kWaitObject0;
}

}  // namespace platform
