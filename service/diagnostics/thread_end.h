// Ending a thread of the service from outside. Every place that does so comes through here.
#pragma once

#include <cstdint>

#include "platform/thread.h"

namespace stewardry {

// Ends the thread with `exitCode` while it stands in no line of the service log or the WMI log:
// both logs' mutexes are held around the call and the thread's end, so that no line is cut and no
// mutex is left to a dead holder, which for the WMI log would be the process's end. Waits up to two
// seconds for each mutex, then goes without it, and as long for the thread. Returns true once the
// thread has ended; false if it couldn't be ended or is still there. Any thread but the one that is
// to end.
bool EndThreadBetweenLines(const platform::Thread& thread, std::uint32_t exitCode);

// Gives a thread that has been asked to leave 150 milliseconds for it, and ends it from outside
// only then. Logs "GetExitCodeThread failed", and `failureLine` if the thread couldn't be ended.
void AwaitOrEndThread(const platform::Thread& thread, const char* failureLine);

}  // namespace stewardry
