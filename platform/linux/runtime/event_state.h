// The state behind an event; requests signal events too. Guarded by WaitLock.
#pragma once

#include <cassert>
#include <condition_variable>

#include "platform/event.h"
#include "platform/linux/runtime/wait.h"

namespace platform {

struct EventState {
  std::condition_variable& changed = SleepingPlace();
  bool manualReset = false;
  bool signalled = false;
};

inline EventState& StateOf(const Event& event) {
  assert(event);
  return *static_cast<EventState*>(event.Raw());
}

// Signals an event. Requires WaitLock; the waiters are woken after it is released.
inline void SignalLocked(Wakes* wakes, EventState& event) {
  event.signalled = true;
  wakes->Add(event.changed);
}

}  // namespace platform
