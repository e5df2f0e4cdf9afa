#include "platform/linux/lab/link_seat.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cassert>

namespace platform {

namespace {

enum Source : std::uint32_t { kSocket, kBell, kEnd };

bool Add(int epoll, int descriptor, std::uint32_t events, Source source) {
  epoll_event entry{};
  entry.events = events;
  entry.data.u32 = source;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &entry) == 0;
}

}  // namespace

LinkSeat::LinkSeat(int socket)
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), bell_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  // Without descriptors the link has no reader, and its users wait as for a silent firmware.
  (void)Add(epoll_.Value(), socket, EPOLLIN | EPOLLEXCLUSIVE, kSocket);
  (void)Add(epoll_.Value(), bell_.Value(), EPOLLIN | EPOLLET, kBell);
}

LinkSeat::Woken LinkSeat::Sleep(int timeoutMs, int endDescriptor, std::uint64_t owner) {
  SetEnd(endDescriptor, owner);
  epoll_event seen[3];
  const int count = ::epoll_wait(epoll_.Value(), seen, 3, timeoutMs);
  asleep.store(false, std::memory_order_relaxed);
  Woken woken{false, false, count != 0};  // an interrupted wait counts as a ring
  for (int i = 0; i < count; ++i) {
    woken.readable = woken.readable || seen[i].data.u32 == kSocket;
    woken.ended = woken.ended || seen[i].data.u32 == kEnd;
  }
  return woken;
}

void LinkSeat::Ring() { SignalDescriptor(bell_.Value()); }

void LinkSeat::SetEnd(int descriptor, std::uint64_t owner) {
  if (descriptor == end_ && owner == endOwner_) return;
  // The removal fails if the descriptor has been closed, which has removed it.
  if (end_ >= 0) (void)::epoll_ctl(epoll_.Value(), EPOLL_CTL_DEL, end_, nullptr);
  end_ = descriptor;
  endOwner_ = owner;
  if (end_ >= 0) (void)Add(epoll_.Value(), end_, EPOLLIN, kEnd);
}

void SignalDescriptor(int descriptor) {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof one);
}

}  // namespace platform
