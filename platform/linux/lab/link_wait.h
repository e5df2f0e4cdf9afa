// A place at which one thread waits for the bytes of a firmware. Bytes that arrive wake the waiting
// thread of the first LinkWait that has one, in the order of their construction, and no other. The
// kernel does that: each is an epoll that the socket belongs to with EPOLLEXCLUSIVE.
#pragma once

#include <atomic>

#include "platform/linux/runtime/descriptor.h"

namespace platform {

class LinkWait {
 public:
  explicit LinkWait(int socket);
  LinkWait(const LinkWait&) = delete;
  LinkWait& operator=(const LinkWait&) = delete;

  struct Woken {
    bool readable;  // bytes or the link's end have arrived, and no other thread knows of them
    bool any;       // false after a time-out
  };
  // Blocks until bytes arrive, Wake is called or the time-out, -1 for none, is over. One thread at
  // a time.
  Woken Sleep(int timeoutMs);

  // Wakes the thread in Sleep; without one, the next Sleep returns at once. Any thread.
  void Wake();
  int WakeDescriptor() const { return wake_.Value(); }

  // Guarded by WaitLock: whether a thread uses it.
  bool taken = false;
  // Set under WaitLock by the thread that is about to sleep, once it has found nothing to do, and
  // cleared by it without the lock: a stale true only costs a wake-up. Relaxed: WaitLock orders it.
  std::atomic<bool> asleep{false};

 private:
  const Descriptor epoll_;
  const Descriptor wake_;  // an eventfd; edge-triggered, so it is never reset
};

}  // namespace platform
