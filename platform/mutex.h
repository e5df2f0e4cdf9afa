// Mutexes that survive the death of their holder.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

void CloseMutex(RawHandle raw);
using Mutex = Owned<struct MutexTag, CloseMutex>;

// CreateMutexA, not owned at first. A `name` makes it machine-wide: every process that gives the
// name gets the same mutex; null makes one private to this process. Empty owner on failure: with
// kErrorInvalidHandle if an object of another kind has the name, with kErrorAccessDenied if this
// process may not open the mutex that has it.
Mutex CreateMutexA(const char* name);

// WaitForSingleObject on a mutex: kWaitObject0 when taken, kWaitAbandoned when taken from a holder
// that died with it, kWaitTimeout, kWaitFailed. The constants are those of platform/event.h.
std::uint32_t WaitForSingleObject(const Mutex& mutex, std::uint32_t milliseconds);

// ReleaseMutex: true on success; only the thread that holds it may call.
bool ReleaseMutex(const Mutex& mutex);

}  // namespace platform
