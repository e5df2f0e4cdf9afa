// The state behind an event; requests signal events too. Guarded by WaitLock.
#pragma once

#include <cassert>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "platform/event.h"
#include "platform/linux/runtime/wait.h"

namespace platform {

// Completes requests. A thread that waits for one of them works for the completer meanwhile, so
// that no other thread has to wake it.
class Completer {
 public:
  // Like WaitTurn (wait.h), on behalf of a thread that waits for a request.
  virtual bool RequestTurn(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
                           Deadline deadline) = 0;

 protected:
  ~Completer() = default;
};

struct EventState {
  std::condition_variable& changed = SleepingPlace();
  bool manualReset = false;
  bool signalled = false;
  std::weak_ptr<Completer> completer;  // of the request that the event was last used for
};

inline EventState& StateOf(const Event& event) {
  assert(event);
  return *static_cast<EventState*>(event.Raw());
}

// A wait on an event. Holds WaitLock; the completer is released after it, since the end of a
// completer waits for a thread that needs the lock.
class EventWait {
 public:
  explicit EventWait(EventState* state) : state_(state), lock_(WaitLock()) {
    completer_ = state_->completer.lock();
  }
  EventWait(const EventWait&) = delete;
  EventWait& operator=(const EventWait&) = delete;

  // Blocks until ready() is true. Returns false on time-out.
  template <class Ready>
  bool Until(Deadline deadline, Ready ready) {
    return WaitUntil(lock_, state_->changed, deadline, ready, [this](auto&... arguments) {
      return completer_ ? completer_->RequestTurn(arguments...) : WaitTurn(arguments...);
    });
  }

 private:
  EventState* const state_;
  std::shared_ptr<Completer> completer_;
  std::unique_lock<std::mutex> lock_;
};

// Signals an event. Requires WaitLock; the waiters are woken after it is released.
inline void SignalLocked(Wakes* wakes, EventState& event) {
  event.signalled = true;
  wakes->Add(event.changed);
}

}  // namespace platform
