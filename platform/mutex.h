// Mutexes whose holder may end without a release.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

void CloseMutex(RawHandle raw);
using Mutex = Owned<struct MutexTag, CloseMutex>;

// Creates a mutex, not held, or opens the existing one of that name, which all processes share. A
// null `name` makes it private to this process. Fails with kErrorInvalidHandle if an object of
// another kind has the name, with kErrorAccessDenied if the process may not open it.
Mutex CreateMutexA(const char* name);

// Blocks until the calling thread holds the mutex, for at most `milliseconds`. Returns a result of
// platform/event.h; kWaitAbandoned if a thread ended while it held the mutex, which is held now.
std::uint32_t WaitForSingleObject(const Mutex& mutex, std::uint32_t milliseconds);

// Releases the mutex. Must be called by the thread that holds it.
bool ReleaseMutex(const Mutex& mutex);

}  // namespace platform
