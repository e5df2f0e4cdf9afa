#include "platform/linux/runtime/wait.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <exception>
#include <utility>

#include "platform/event.h"
#include "platform/handle.h"
#include "platform/thread.h"

namespace platform {

namespace {

thread_local std::shared_ptr<ThreadRecord> tRecord;

thread_local int tStays = 0;

bool MayLeave() { return tStays == 0 && std::uncaught_exceptions() == 0; }

}  // namespace

StayInThread::StayInThread() { ++tStays; }
StayInThread::~StayInThread() {
  assert(tStays > 0);
  --tStays;
}

ThreadRecord::~ThreadRecord() {
  if (endDescriptor >= 0) ::close(endDescriptor);
}

std::mutex& WaitLock() {
  static ProcessLifetime<std::mutex> lock;
  return *lock;
}

std::condition_variable& SleepingPlace() {
  constexpr std::size_t kPlaces = 512;
  static ProcessLifetime<std::array<std::condition_variable, kPlaces>> places;
  static std::atomic<std::size_t> handedOut{0};  // relaxed: only spreads the objects
  return (*places)[handedOut.fetch_add(1, std::memory_order_relaxed) % kPlaces];
}

ThreadRecord& CurrentThread() {
  if (!tRecord) tRecord = std::make_shared<ThreadRecord>();
  return *tRecord;
}

void SetCurrentThread(std::shared_ptr<ThreadRecord> record) {
  assert(record != nullptr && tRecord == nullptr);
  tRecord = std::move(record);
}

void LeaveIfEnded() {
  ThreadRecord& self = CurrentThread();
  bool ended;
  {
    std::lock_guard guard(WaitLock());
    ended = self.ended;
  }
  if (ended && MayLeave()) throw ThreadEnd{};
}

void LeaveIfEndedLocked(const ThreadRecord& self) {
  if (self.ended && MayLeave()) throw ThreadEnd{};
}

Deadline DeadlineAfter(std::uint32_t milliseconds) {
  if (milliseconds == kInfinite) return Deadline::max();
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
}

bool WaitTurn(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
              Deadline deadline) {
  assert(lock.owns_lock() && lock.mutex() == &WaitLock());
  ThreadRecord& self = CurrentThread();
  assert(self.waitingOn == nullptr);
  LeaveIfEndedLocked(self);
  self.waitingOn = &wakeup;
  bool inTime = true;
  if (deadline == Deadline::max()) {
    wakeup.wait(lock);
  } else {
    inTime = wakeup.wait_until(lock, deadline) == std::cv_status::no_timeout;
  }
  self.waitingOn = nullptr;
  LeaveIfEndedLocked(self);
  return inTime;
}

int EndDescriptor() { return MayLeave() ? CurrentThread().endDescriptor : -1; }

bool WaitDescriptor(int descriptor, short events, int timeoutMs) {
  assert(descriptor >= 0);
  LeaveIfEnded();
  pollfd fds[2] = {{descriptor, events, 0}, {EndDescriptor(), POLLIN, 0}};
  const int ready = ::poll(fds, fds[1].fd >= 0 ? 2 : 1, timeoutMs);
  LeaveIfEnded();
  return ready > 0 && fds[0].revents != 0;
}

bool WaitReadable(int descriptor, int timeoutMs) {
  return WaitDescriptor(descriptor, POLLIN, timeoutMs);
}

}  // namespace platform
