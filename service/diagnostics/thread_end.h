// The end of a thread of the service from outside. All code that ends a thread calls these.
#pragma once

#include <cstdint>

#include "platform/thread.h"

namespace stewardry {

// Ends the thread with `exitCode` while it writes no line of the service log or the WMI log: both
// logs' mutexes are held until the thread has ended. So no line is cut, and no mutex is left to a
// dead holder, which for the WMI log would end the process. Waits at most two seconds for each
// mutex, then continues without it, and at most two for the thread. Returns true once the thread
// has ended; false if it could not be ended or still runs. Any thread but the one that is to end.
bool EndThreadBetweenLines(const platform::Thread& thread, std::uint32_t exitCode);

// Waits 150 milliseconds for a thread that was asked to exit, then ends it from outside. Logs
// "GetExitCodeThread failed" if that call fails, and `failureLine` if the thread could not be
// ended.
void AwaitOrEndThread(const platform::Thread& thread, const char* failureLine);

}  // namespace stewardry
