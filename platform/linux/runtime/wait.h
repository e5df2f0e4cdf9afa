// How a thread waits here, so that it can be ended from outside: every blocking call waits for its
// own event and for the thread's end mark together, and a thread that finds the mark leaves by
// unwinding to its entry. So nothing is held afterwards.
//
// Invariants:
// 1. WaitLock() guards the state of every waitable object (events, threads, requests, completion
//    ports) and of every thread's record. It is held for a few instructions only.
// 2. A waiting thread has noted in its record what it waits on, so that its ender can wake it.
// 3. A thread that unwinds already doesn't leave again, nor does one in a StayInThread: destructors
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
  std::condition_variable finished;  // signalled when the thread has left
  std::condition_variable* waitingOn = nullptr;
  int endDescriptor = -1;  // readable once the thread is to end
  // The end mark. Written under WaitLock; relaxed: who sees it without the lock looks again with
  // it.
  std::atomic<bool> ended{false};
  bool running = true;
  std::uint32_t exitCode = 0;
  ThreadRecord() = default;
  ThreadRecord(const ThreadRecord&) = delete;
  ThreadRecord& operator=(const ThreadRecord&) = delete;
  ~ThreadRecord();
};

std::mutex& WaitLock();

// Where the waiters of an object sleep. The places are few, shared and never destroyed, so a wake
// may come when the object has gone; who is woken for another's sake looks and sleeps on.
std::condition_variable& SleepingPlace();

// Whom to wake once WaitLock has been given back: a thread that is woken under the lock runs
// straight into it and must be woken again. Stands before the guard that holds the lock, so it ends
// after it.
class Wakes {
 public:
  Wakes() = default;
  Wakes(const Wakes&) = delete;
  Wakes& operator=(const Wakes&) = delete;
  ~Wakes() {
    for (std::size_t i = 0; i < count_; ++i) places_[i]->notify_all();
  }
  // REQUIRES: a place of SleepingPlace.
  void Add(std::condition_variable& place) {
    for (std::size_t i = 0; i < count_; ++i)
      if (places_[i] == &place) return;
    if (count_ == places_.size()) return place.notify_all();  // many at once are in no hurry
    places_[count_++] = &place;
  }

 private:
  std::array<std::condition_variable*, 4> places_{};
  std::size_t count_ = 0;
};

// The calling thread's record. A thread that platform::CreateThread didn't make has one that is
// never marked.
ThreadRecord& CurrentThread();
void SetCurrentThread(std::shared_ptr<ThreadRecord> record);

// Leaves the thread if it was terminated and doesn't unwind already.
void LeaveIfEnded();

using Deadline = std::chrono::steady_clock::time_point;
// `milliseconds` from now; kInfinite gives the far end of time.
Deadline DeadlineAfter(std::uint32_t milliseconds);

// One turn of waiting on `wakeup` under WaitLock; false when the deadline has passed. Leaves the
// thread if it was terminated.
bool WaitTurn(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
              Deadline deadline);

// Waits under WaitLock until ready() is true; false on time-out.
template <class Ready>
bool WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& wakeup,
               Deadline deadline, Ready ready) {
  while (!ready())
    if (!WaitTurn(lock, wakeup, deadline)) return ready();
  return true;
}

// The calling thread's end mark for a poll of its own, which calls LeaveIfEnded when the mark
// comes; -1 for a thread that can't be terminated or unwinds already.
int EndDescriptor();

// Waits until the descriptor is readable (WaitReadable) or `events` of poll(2) have come; false on
// time-out (negative: none) or failure. Leaves the thread if it was terminated.
bool WaitDescriptor(int descriptor, short events, int timeoutMs);
bool WaitReadable(int descriptor, int timeoutMs);

}  // namespace platform
