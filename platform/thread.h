// Threads that can be terminated by another thread, and the calling thread's ids.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

constexpr std::uint32_t kStillActive = 259;  // STILL_ACTIVE

using ThreadEntry = std::uint32_t (*)(void* parameter);

// Releases the handle; the thread continues.
void CloseThread(RawHandle raw);
using Thread = Owned<struct ThreadTag, CloseThread>;

// Starts a thread that runs entry(parameter), whose result is the exit code. The caller keeps
// `parameter`.
Thread CreateThread(ThreadEntry entry, void* parameter);

// Starts the termination of a thread with `exitCode` and returns; only a wait shows that it has
// ended. Windows ends it at any instruction. Linux marks it, and it unwinds at its next wait.
// Returns true also if the thread has ended already.
bool TerminateThread(const Thread& thread, std::uint32_t exitCode);

// Stores the exit code, kStillActive while the thread runs.
bool GetExitCodeThread(const Thread& thread, std::uint32_t* exitCode);

// Blocks until the thread has ended, for at most `milliseconds`. Returns a result of
// platform/event.h.
std::uint32_t WaitForSingleObject(const Thread& thread, std::uint32_t milliseconds);

std::uint32_t GetCurrentThreadId();
std::uint32_t GetCurrentProcessId();

// Suspends the calling thread; 0 yields the rest of its time slice.
void Sleep(std::uint32_t milliseconds);

// A timer for the short waits of one thread.
void CloseWaitTimer(RawHandle raw);
using WaitTimer = Owned<struct WaitTimerTag, CloseWaitTimer>;

// Creates a timer that keeps waits below Sleep's grain: a high-resolution one, or an ordinary one
// where Windows has none (before Windows 10, 1803), whose waits last up to the clock interrupt's
// period of some 16 milliseconds.
WaitTimer CreateWaitTimer();

// Suspends the calling thread for `microseconds` or somewhat longer. An empty timer, or one that
// can't be set, makes it Sleep(1). A terminated thread ends here once the time has passed. Requires
// a timer that no other thread uses.
void WaitMicroseconds(const WaitTimer& timer, std::uint32_t microseconds);

// Hints to the processor that the calling thread spins (YieldProcessor).
void PauseProcessor();

// Yields the rest of the time slice to another ready thread, if there is one. On Linux a terminated
// thread ends here, too.
void SwitchToThread();

// Keeps the calling thread from ending at a wait while the object lives, because the waits of a
// destructor must finish. Has no effect on Windows, where a terminated thread runs no destructor.
class StayInThread {
 public:
  StayInThread();
  StayInThread(const StayInThread&) = delete;
  StayInThread& operator=(const StayInThread&) = delete;
  ~StayInThread();  // NOLINT(performance-trivially-destructible): not so on Linux
};

}  // namespace platform
