// How a thread waits here, so that it can be ended from outside: every blocking call waits for its
// own event and for the thread's end mark together. A thread that finds the mark leaves by
// unwinding to its entry, which releases everything it holds.
//
// Invariants:
// 1. WaitLock() guards the state of every waitable object (events, threads, requests, completion
//    ports) and of every thread's record. It is held for a few instructions only.
// 2. A waiting thread has set waitingOn or wakeDescriptor in its record, so that the thread that
// ends it can
//    wake it.
// 3. A thread that already unwinds doesn't leave again, nor does one in a StayInThread: destructors
//    may wait, and finish.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace platform {

// Thrown at a wait of a thread that was terminated; caught at the thread's entry only.
struct ThreadEnd {};

struct ThreadRecord {
  std::condition_variable finished;  // signalled when the thread has exited
  std::condition_variable* waitingOn = nullptr;
  int endDescriptor = -1;   // an eventfd, readable once the thread is to end
  int wakeDescriptor = -1;  // under WaitLock: an eventfd that wakes the thread where it sleeps
  // The end mark. Written under WaitLock. Relaxed: a reader without the lock checks again with it.
  std::atomic<bool> ended{false};
  bool running = true;
  std::uint32_t exitCode = 0;
  ThreadRecord() = default;
  ThreadRecord(const ThreadRecord&) = delete;
  ThreadRecord& operator=(const ThreadRecord&) = delete;
  ~ThreadRecord();
};

std::mutex& WaitLock();

// Returns where the waiters of a new object sleep. The places are few, shared and never destroyed,
// so a wake may arrive after its object is gone. Spurious wake-ups re-check the condition and wait
// again.
std::condition_variable& SleepingPlace();

// The places to wake once WaitLock is released: a thread that is woken under the lock blocks on it
// at once and must be woken again. Declare it before the guard that holds the lock, so that it is
// destroyed after it.
class Wakes {
 public:
  Wakes() = default;
  Wakes(const Wakes&) = delete;
  Wakes& operator=(const Wakes&) = delete;
  ~Wakes() {
    for (std::size_t i = 0; i < count_; ++i) places_[i]->notify_all();
  }
  // Requires a place of SleepingPlace.
  void Add(std::condition_variable& place) {
    for (std::size_t i = 0; i < count_; ++i)
      if (places_[i] == &place) return;
    if (count_ == places_.size()) return place.notify_all();  // full: wake under the lock
    places_[count_++] = &place;
  }

 private:
  std::array<std::condition_variable*, 4> places_{};
  std::size_t count_ = 0;
};

// Returns the calling thread's record. A thread that platform::CreateThread didn't start has one
// that is never marked.
ThreadRecord& CurrentThread();
// Requires a thread that has no record yet.
void SetCurrentThread(std::shared_ptr<ThreadRecord> record);

// Leaves the thread if it was terminated and doesn't already unwind.
void LeaveIfEnded();
// The same for a caller that holds WaitLock.
void LeaveIfEndedLocked(const ThreadRecord& self);

using Deadline = std::chrono::steady_clock::time_point;
// Returns the time `milliseconds` from now; Deadline::max() for kInfinite.
Deadline DeadlineAfter(std::uint32_t milliseconds);

// Waits on `wakeup` once, with WaitLock released meanwhile. Requires `lock` to hold WaitLock.
// Returns false when the deadline has passed. Leaves the thread if it was terminated.
bool WaitTurn(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
              Deadline deadline);

// Blocks under WaitLock until ready() is true, in turns of turn(lock, wakeup, deadline). Returns
// false on time-out.
template <class Ready, class Turn>
bool WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
               Deadline deadline, Ready ready, Turn turn) {
  while (!ready())
    if (!turn(lock, wakeup, deadline)) return ready();
  return true;
}
template <class Ready>
bool WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
               Deadline deadline, Ready ready) {
  return WaitUntil(lock, wakeup, deadline, ready, WaitTurn);
}

// Returns the calling thread's end mark for a poll of its own, which calls LeaveIfEnded when the
// mark is readable; -1 for a thread that can't be terminated or already unwinds.
int EndDescriptor();

// Blocks until the descriptor is readable (WaitReadable) or has one of poll(2)'s `events`. Returns
// false on time-out (a negative one never comes) or failure. Leaves the thread if it was
// terminated.
bool WaitDescriptor(int descriptor, short events, int timeoutMs);
bool WaitReadable(int descriptor, int timeoutMs);

}  // namespace platform
