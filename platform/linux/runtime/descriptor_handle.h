// A file descriptor as a raw handle. Descriptors 0 to 2 are occupied from the start, so none is
// null; -1 is never wrapped.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

inline RawHandle HandleOf(int descriptor) {
  return reinterpret_cast<RawHandle>(static_cast<std::uintptr_t>(descriptor));
}

inline int DescriptorOf(RawHandle raw) {
  return static_cast<int>(reinterpret_cast<std::uintptr_t>(raw));
}

}  // namespace platform
