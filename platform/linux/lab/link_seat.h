// A place at which one thread waits for the bytes of a firmware. Bytes that arrive wake the waiting
// thread of the first seat that has one, in the order of the seats' construction, and no other. The
// kernel does that: each seat is an epoll that the socket belongs to with EPOLLEXCLUSIVE.
#pragma once

#include <atomic>

#include "platform/linux/runtime/descriptor.h"

namespace platform {

class LinkSeat {
 public:
  explicit LinkSeat(int socket);
  LinkSeat(const LinkSeat&) = delete;
  LinkSeat& operator=(const LinkSeat&) = delete;

  struct Woken {
    bool readable;  // bytes or the link's end have arrived, and no other thread knows of them
    bool any;       // false after a time-out
  };
  // Blocks until bytes arrive, the bell rings or the time-out, -1 for none, is over. One thread at
  // a time.
  Woken Sleep(int timeoutMs);

  // Wakes the thread in Sleep; without one, the next Sleep returns at once. Any thread.
  void Ring();
  int BellDescriptor() const { return bell_.Value(); }

  // Guarded by WaitLock: whether a thread uses the seat.
  bool taken = false;
  // Set under WaitLock by the thread that is about to sleep, once it has found nothing to do, and
  // cleared by it without the lock: a stale true only costs a ring. Relaxed: WaitLock orders it.
  std::atomic<bool> asleep{false};

 private:
  const Descriptor epoll_;
  const Descriptor bell_;  // an eventfd; edge-triggered, so it is never reset
};

// Signals an eventfd. A failure means that it is signalled already.
void SignalDescriptor(int descriptor);

}  // namespace platform
