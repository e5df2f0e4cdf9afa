// The three threads of a KVM session and how they are ended. None has a stop condition of its own
// in its work, so each looks at a stop mark between two steps; only one that doesn't leave by that
// is ended by force, because a thread that is ended wherever it stands may take the heap's or the
// loader's lock with it.
#pragma once

#include <atomic>

#include "platform/thread.h"

namespace stewardry {

// Null when there is none. Written by the thread that builds or ends the session, one at a time.
extern platform::ProcessLifetime<platform::Thread> gKvmAgentThread;
extern platform::ProcessLifetime<platform::Thread> gKeyboardThread;
extern platform::ProcessLifetime<platform::Thread> gMouseThread;

// True while the thread of that name shall leave. Set and cleared by the functions below, read by
// the thread; relaxed, nothing else is published with it.
extern std::atomic<bool> gStopKVMAgentThread;
extern std::atomic<bool> gStopKeyboardThread;
extern std::atomic<bool> gStopMouseThread;

// Marks the agent's watch to leave, if it runs, before the agent is told to go: the watch would
// take that for a crash and start another one. TerminateKVMAgentThread follows.
void StopKVMAgentWatch();

// Each ends its thread and forgets the handle; nothing if there is none. A thread that is still
// there after all of it, which is logged, keeps its handle, and its mark stays set: a pump that
// went on would read a region that was given back. The call may be repeated. Not on the thread
// itself.
void TerminateKVMAgentThread();
void TerminateKeyboardThread();
void TerminateMouseThread();

}  // namespace stewardry
