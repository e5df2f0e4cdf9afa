#include "platform/linux/lab/link_wait.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cstdint>

namespace platform {

namespace {

enum Source : std::uint32_t { kSocket, kWake };

bool Add(int epoll, int descriptor, std::uint32_t events, Source source) {
  epoll_event entry{};
  entry.events = events;
  entry.data.u32 = source;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &entry) == 0;
}

}  // namespace

LinkWait::LinkWait(int socket)
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  // Without descriptors the link has no reader, and its users wait as for a silent firmware.
  (void)Add(epoll_.Value(), socket, EPOLLIN | EPOLLEXCLUSIVE, kSocket);
  (void)Add(epoll_.Value(), wake_.Value(), EPOLLIN | EPOLLET, kWake);
}

LinkWait::Woken LinkWait::Sleep(int timeoutMs) {
  epoll_event seen[2];
  const int count = ::epoll_wait(epoll_.Value(), seen, 2, timeoutMs);
  asleep.store(false, std::memory_order_relaxed);
  Woken woken{false, count != 0};  // an interrupted wait counts as a wake-up
  for (int i = 0; i < count; ++i) woken.readable = woken.readable || seen[i].data.u32 == kSocket;
  return woken;
}

void LinkWait::Wake() { SignalDescriptor(wake_.Value()); }

}  // namespace platform
