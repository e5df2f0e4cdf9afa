// The one owner type behind every handle of the contract: move-only, closes what it holds, knows
// its "no value". What a raw handle means is the platform's own affair; nobody outside platform/
// looks inside one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace platform {

using RawHandle = void*;

// Windows' INVALID_HANDLE_VALUE: all bits set.
inline RawHandle InvalidHandleValue() {
  return reinterpret_cast<RawHandle>(~static_cast<std::uintptr_t>(0));
}

// Owns one raw handle. Tag makes the kinds distinct types; Close releases a held value and is
// never called with null or the invalid handle value.
template <class Tag, void (*Close)(RawHandle)>
class Owned {
 public:
  Owned() = default;
  explicit Owned(RawHandle raw) : raw_(raw) {}
  Owned(Owned&& other) noexcept : raw_(std::exchange(other.raw_, nullptr)) {}
  Owned& operator=(Owned&& other) noexcept {
    if (this != &other) Reset(std::exchange(other.raw_, nullptr));
    return *this;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { Reset(); }

  explicit operator bool() const { return raw_ != nullptr && raw_ != InvalidHandleValue(); }
  RawHandle Raw() const { return raw_; }
  void Reset(RawHandle raw = nullptr) {
    RawHandle old = std::exchange(raw_, raw);
    if (old != nullptr && old != InvalidHandleValue()) Close(old);
  }

 private:
  RawHandle raw_ = nullptr;
};

// A process-wide object that is never destroyed: threads that nothing ends still use it while the
// process leaves, so the system reclaims it.
template <class T>
class ProcessLifetime {
 public:
  ProcessLifetime() { new (storage_) T(); }
  ProcessLifetime(const ProcessLifetime&) = delete;
  ProcessLifetime& operator=(const ProcessLifetime&) = delete;
  T& operator*() { return *std::launder(reinterpret_cast<T*>(storage_)); }
  T* operator->() { return &**this; }

 private:
  alignas(T) std::byte storage_[sizeof(T)];
};

}  // namespace platform
