// File descriptors: one that closes itself, and one as a raw handle of the contract.
#pragma once

#include <unistd.h>

#include <cassert>
#include <cstdint>

#include "platform/handle.h"

namespace platform {

class Descriptor {
 public:
  // Takes ownership of the descriptor. A negative one, the result of a failed call, is none.
  explicit Descriptor(int value) : value_(value) {}
  ~Descriptor() {
    if (value_ >= 0) ::close(value_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Value() const { return value_; }
  explicit operator bool() const { return value_ >= 0; }

 private:
  const int value_;
};

// Signals an eventfd; does nothing for a negative one. A failure means that it is signalled
// already.
inline void SignalDescriptor(int descriptor) {
  const std::uint64_t one = 1;
  if (descriptor >= 0) (void)!::write(descriptor, &one, sizeof one);
}

// Returns the raw handle of an open descriptor. Descriptors 0 to 2 are occupied from the start, so
// the handle is never null.
inline RawHandle HandleOf(int descriptor) {
  assert(descriptor > 0);
  return reinterpret_cast<RawHandle>(static_cast<std::uintptr_t>(descriptor));
}

inline int DescriptorOf(RawHandle raw) {
  assert(raw != nullptr && raw != InvalidHandleValue());
  return static_cast<int>(reinterpret_cast<std::uintptr_t>(raw));
}

}  // namespace platform
