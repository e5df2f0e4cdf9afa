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

#include <chrono>
#include <condition_variable>
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
  bool ended = false;      // the end mark
  bool running = true;
  std::uint32_t exitCode = 0;
  ThreadRecord() = default;
  ThreadRecord(const ThreadRecord&) = delete;
  ThreadRecord& operator=(const ThreadRecord&) = delete;
  ~ThreadRecord();
};

std::mutex& WaitLock();

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

// Waits until the descriptor is readable (WaitReadable) or `events` of poll(2) have come; false on
// time-out (negative: none) or failure. Leaves the thread if it was terminated.
bool WaitDescriptor(int descriptor, short events, int timeoutMs);
bool WaitReadable(int descriptor, int timeoutMs);

}  // namespace platform
