// The selector's readiness wait: one epoll is the event that all sockets share, with an eventfd
// beside it as the wake event. A selection holds until it is changed, and the wait leaves what it
// saw in the socket's SocketSelection.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <climits>

#include "platform/event.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/wait.h"
#include "platform/socket.h"

namespace platform {

namespace {

struct EventSet {
  explicit EventSet(int descriptor) : epoll(descriptor) {}
  const Descriptor epoll;
  int wake = -1;           // the wake event that is in the set
  int endDescriptor = -1;  // the end mark that is in the set
  // What those two carry where a socket carries its selection.
  SocketSelection wakeMark{};
  SocketSelection endMark{};
};

EventSet& SetOf(const SocketEvent& event) {
  assert(event);
  return *static_cast<EventSet*>(event.Raw());
}

std::uint32_t EpollMask(std::uint32_t events) {
  std::uint32_t mask = 0;
  if ((events & (kFdRead | kFdAccept | kFdClose)) != 0) mask |= EPOLLIN | EPOLLRDHUP;
  if ((events & (kFdWrite | kFdConnect)) != 0) mask |= EPOLLOUT;
  if ((events & kFdOob) != 0) mask |= EPOLLPRI;
  return mask;
}

// Puts a descriptor into the set once, in place of *known.
bool JoinSet(int epoll, int* known, int descriptor, SocketSelection* mark) {
  if (*known == descriptor || descriptor < 0) return true;
  if (*known >= 0) ::epoll_ctl(epoll, EPOLL_CTL_DEL, *known, nullptr);  // fails once it is closed
  epoll_event entry{};
  entry.events = EPOLLIN;
  entry.data.ptr = mark;
  *known = descriptor;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &entry) == 0;
}

bool IsListening(SocketValue sock) {
  int value = 0;
  socklen_t size = sizeof value;
  return ::getsockopt(static_cast<int>(sock), SOL_SOCKET, SO_ACCEPTCONN, &value, &size) == 0 &&
         value != 0;
}

int BytesWaiting(SocketValue sock) {
  int count = 0;
  return ::ioctl(static_cast<int>(sock), FIONREAD, &count) == 0 ? count : 0;
}

// Returns whether the end of a connect is still to be reported. Linux reports it once, as the
// success of another connect; an accepted socket is connected already.
bool HasUnreportedConnect(SocketValue sock) {
  sockaddr_storage peer;
  auto* address = reinterpret_cast<sockaddr*>(&peer);
  socklen_t size = sizeof peer;
  if (::getpeername(static_cast<int>(sock), address, &size) != 0) return true;
  return ::connect(static_cast<int>(sock), address, size) == 0;
}

// epoll reports these without a request.
constexpr std::uint32_t kBroken = EPOLLERR | EPOLLHUP;

// Returns what epoll has seen, in Winsock's terms.
std::uint32_t NetworkEvents(SocketValue sock, SocketSelection* selection) {
  const std::uint32_t seen = selection->signalled;
  if (selection->listening) return (seen & EPOLLIN) != 0 ? std::uint32_t{kFdAccept} : 0;
  std::uint32_t events = 0;
  if (selection->connecting && (seen & (EPOLLOUT | kBroken)) != 0) {
    selection->connecting = false;
    if ((seen & kBroken) != 0) return kFdConnect;  // the connect has failed
    events |= kFdConnect;
  }
  // A peer's close sets EPOLLIN whether data is left or not. Winsock reports it once the data has
  // been read, and a handler that gets both events reads once and closes.
  const bool closed = (seen & (EPOLLRDHUP | kBroken)) != 0;
  if ((seen & EPOLLIN) != 0 && (!closed || BytesWaiting(sock) > 0)) {
    events |= kFdRead;
  } else if (closed) {
    events |= kFdClose;
  }
  if ((seen & EPOLLOUT) != 0) events |= kFdWrite;
  if ((seen & EPOLLPRI) != 0) events |= kFdOob;
  return events;
}

}  // namespace

void CloseSocketEvent(RawHandle raw) {
  gate::Note("WSACloseEvent");
  delete static_cast<EventSet*>(raw);
}

void CloseWakeEvent(RawHandle raw) {
  gate::Note("CloseHandle");
  ::close(DescriptorOf(raw));
}

SocketEvent WSACreateEvent() {
  if (gate::Fails("WSACreateEvent")) return SocketEvent();
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) return FailFromErrno(SocketEvent());
  return SocketEvent(new EventSet(epoll));
}

WakeEvent CreateWakeEvent() {
  if (gate::Fails("CreateEventA")) return WakeEvent();
  const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (descriptor < 0) return FailFromErrno(WakeEvent());
  return WakeEvent(HandleOf(descriptor));
}

bool SetEvent(const WakeEvent& event) {
  if (gate::Fails("SetEvent")) return false;
  const std::uint64_t one = 1;
  // A counter at its bound is signalled already.
  return ::write(DescriptorOf(event.Raw()), &one, sizeof one) == sizeof one || errno == EAGAIN;
}

bool ResetEvent(const WakeEvent& event) {
  if (gate::Fails("ResetEvent")) return false;
  std::uint64_t count;
  return ::read(DescriptorOf(event.Raw()), &count, sizeof count) == sizeof count || errno == EAGAIN;
}

int WSAEventSelect(SocketValue sock, const SocketEvent& event, SocketSelection* selection,
                   std::uint32_t events) {
  const bool fails = gate::Fails("WSAEventSelect", "%d, 0x%X", static_cast<int>(sock), events);
  assert(selection != nullptr);
  const int fd = static_cast<int>(sock);
  const bool wasIn = selection->selected != 0;
  if (events == 0) {
    // Also where a test makes the call fail: `selection` is freed next, and the close that follows
    // takes nothing out of the set while a starting child process holds the descriptor too. A
    // socket that its callback has closed already is out.
    if (wasIn) (void)::epoll_ctl(SetOf(event).epoll.Value(), EPOLL_CTL_DEL, fd, nullptr);
    *selection = {};
    return fails ? -1 : 0;
  }
  if (fails) return -1;
  if (!wasIn) selection->listening = IsListening(sock);
  if ((events & ~selection->selected & kFdConnect) != 0)
    selection->connecting = !selection->listening && HasUnreportedConnect(sock);
  epoll_event entry{};
  entry.events = EpollMask(events);
  entry.data.ptr = selection;
  selection->signalled = 0;
  selection->selected = events;
  const int epoll = SetOf(event).epoll.Value();
  if (::epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &entry) == 0) return 0;
  if (errno == ENOENT && ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &entry) == 0) return 0;
  selection->selected = 0;
  return FailFromErrno(-1);
}

int WSAEnumNetworkEvents(SocketValue sock, const SocketEvent& event, SocketSelection* selection,
                         std::uint32_t* events) {
  if (gate::Fails("WSAEnumNetworkEvents", "%d", static_cast<int>(sock))) return -1;
  *events = NetworkEvents(sock, selection) & selection->selected;
  // A broken connection that isn't selected for its close would end every wait from now on. It
  // reports nothing more until it is selected again.
  if (*events == 0 && (selection->signalled & kBroken) != 0)
    (void)::epoll_ctl(SetOf(event).epoll.Value(), EPOLL_CTL_DEL, static_cast<int>(sock), nullptr);
  selection->signalled = 0;
  return 0;
}

SocketWait WaitForMultipleObjectsEx(const SocketEvent& sockets, const WakeEvent& wake,
                                    std::uint32_t milliseconds) {
  if (gate::Fails("WaitForMultipleObjectsEx")) return {kWaitFailed, 0, false};
  EventSet& set = SetOf(sockets);
  const int epoll = set.epoll.Value();
  if (!JoinSet(epoll, &set.wake, DescriptorOf(wake.Raw()), &set.wakeMark) ||
      !JoinSet(epoll, &set.endDescriptor, CurrentThread().endDescriptor, &set.endMark))
    return FailFromErrno(SocketWait{kWaitFailed, 0, false});
  epoll_event seen[64];
  const int timeout = milliseconds == kInfinite ? -1
                      : milliseconds > INT_MAX  ? INT_MAX
                                                : static_cast<int>(milliseconds);
  const int count = ::epoll_wait(epoll, seen, 64, timeout);
  if (count < 0 && errno != EINTR) return FailFromErrno(SocketWait{kWaitFailed, 0, false});
  SocketWait result{count > 0 ? kWaitObject0 : kWaitTimeout, 0, false};
  for (int i = 0; i < count; ++i) {
    auto* selection = static_cast<SocketSelection*>(seen[i].data.ptr);
    if (selection == &set.wakeMark) {
      result.woken = true;
    } else if (selection == &set.endMark) {
      LeaveIfEnded();
    } else {
      selection->signalled = seen[i].events;
      result.only = ++result.signalled == 1 ? selection : nullptr;
    }
  }
  return result;
}

}  // namespace platform
