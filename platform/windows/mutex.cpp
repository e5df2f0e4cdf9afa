#include "platform/mutex.h"

#include "platform/windows/runtime/windows_api.h"

namespace platform {

void CloseMutex(RawHandle raw) { ::CloseHandle(raw); }

Mutex CreateMutexA(const char* name) { return Mutex(::CreateMutexA(nullptr, FALSE, name)); }

std::uint32_t WaitForSingleObject(const Mutex& mutex, std::uint32_t milliseconds) {
  return ::WaitForSingleObject(mutex.Raw(), milliseconds);
}

bool ReleaseMutex(const Mutex& mutex) { return ::ReleaseMutex(mutex.Raw()) != FALSE; }

}  // namespace platform
