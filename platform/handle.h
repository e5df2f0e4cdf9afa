// The owner of every handle of the contract. Raw handles are opaque outside platform/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace platform {

using RawHandle = void*;

// Returns INVALID_HANDLE_VALUE, all bits set.
inline RawHandle InvalidHandleValue() {
  return reinterpret_cast<RawHandle>(~static_cast<std::uintptr_t>(0));
}

// Owns one raw handle. It is empty, and converts to false, while it holds null or the invalid
// handle value; Close is called for any other value. Tag makes a distinct type of each kind.
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

// A process-wide object that is never destroyed, because threads still use it while the process
// exits.
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
