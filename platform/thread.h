// Threads that can be ended from outside, and the calling thread's numbers.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

constexpr std::uint32_t kStillActive = 259;  // STILL_ACTIVE

using ThreadEntry = std::uint32_t (*)(void* parameter);

// Releases the handle; the thread itself goes on.
void CloseThread(RawHandle raw);
using Thread = Owned<struct ThreadTag, CloseThread>;

// CreateThread with default attributes: runs entry(parameter), whose result is the exit code.
// `parameter` stays the caller's. Empty owner on failure, with the last error set.
Thread CreateThread(ThreadEntry entry, void* parameter);

// TerminateThread: begins the end of a thread from outside, with `exitCode`, and returns: true says
// that the thread is to end, and only a wait for it that it has. Windows ends it where it stands.
// Linux marks it, and it leaves by unwinding at its next wait. A thread that has ended already is a
// success.
bool TerminateThread(const Thread& thread, std::uint32_t exitCode);

// GetExitCodeThread: kStillActive while the thread runs. False on failure.
bool GetExitCodeThread(const Thread& thread, std::uint32_t* exitCode);

// WaitForSingleObject on a thread: kWaitObject0 once it has ended, else as for an event.
std::uint32_t WaitForSingleObject(const Thread& thread, std::uint32_t milliseconds);

std::uint32_t GetCurrentThreadId();
std::uint32_t GetCurrentProcessId();

// Sleep: suspends the calling thread; 0 gives up the rest of its time slice.
void Sleep(std::uint32_t milliseconds);

// YieldProcessor: tells the processor that the calling thread spins.
void PauseProcessor();

// SwitchToThread: the rest of the time slice goes to another thread that is ready, if there is one;
// no pause otherwise. On Linux a terminated thread leaves here, too.
void SwitchToThread();

// While one of these lives, the calling thread doesn't leave at a wait although it was terminated:
// what a destructor waits for must finish. Windows needs none, since it ends a thread where it
// stands and runs no destructor.
class StayInThread {
 public:
  StayInThread();
  StayInThread(const StayInThread&) = delete;
  StayInThread& operator=(const StayInThread&) = delete;
  ~StayInThread();
};

}  // namespace platform
