#include "platform/heap.h"

#include "platform/windows/runtime/windows_api.h"

namespace platform {

void HeapFree(RawHandle raw) { ::HeapFree(::GetProcessHeap(), 0, raw); }

HeapBlock HeapAlloc(std::size_t size) {
  return HeapBlock(::HeapAlloc(::GetProcessHeap(), 0, size));
}

void LocalFree(RawHandle raw) { ::LocalFree(raw); }

LocalBlock LocalAlloc(std::size_t size) { return LocalBlock(::LocalAlloc(LPTR, size)); }

}  // namespace platform
