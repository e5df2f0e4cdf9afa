// What an event is made of here; requests signal it too. Guarded by WaitLock.
#pragma once

#include <condition_variable>

#include "platform/event.h"
#include "platform/linux/runtime/wait.h"

namespace platform {

struct EventState {
  std::condition_variable& changed = SleepingPlace();
  bool manualReset = false;
  bool signalled = false;
};

inline EventState& StateOf(const Event& event) { return *static_cast<EventState*>(event.Raw()); }

// Signals under WaitLock, which is given back before the wakes.
void SignalLocked(Wakes* wakes, EventState& event);

}  // namespace platform
