// The memory that the firmware and the service share in a KVM session: a ring of key events and a
// ring of pointer events. A memory format: all integers little-endian, all offsets fixed.
//
// 1. The firmware writes entries and `writeIndex`, the service `readIndex`. Equal indexes mean an
//    empty ring, so a writer leaves one entry free; the index behind the last is 0.
// 2. There is no lock. An entry is written before the index that covers it, so the index is loaded
//    with acquire. readIndex is stored with release, after its entry has been handled.
// 3. Nothing in the region is trusted: no index leads to an access outside it (DrainRing).
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>

namespace stewardry {

struct KeyboardRing {
  static constexpr std::uint32_t kEntries = 8190;
  std::uint32_t writeIndex;
  std::uint32_t readIndex;
  // Bit 31: pressed, else released. Bits 15 to 0: the X keysym. The others are not read.
  std::uint32_t entries[kEntries];
};
static_assert(sizeof(KeyboardRing) == 32768 && offsetof(KeyboardRing, readIndex) == 4 &&
              offsetof(KeyboardRing, entries) == 8);

// One pointer state, as RFB's pointer event has it.
struct mouseBufferRingData {
  std::uint32_t buttonMask;  // bit 0 left, 1 middle, 2 right, 3 wheel up, 4 wheel down
  std::uint32_t x;           // pixels; signed in all arithmetic
  std::uint32_t y;
};
static_assert(sizeof(mouseBufferRingData) == 12);

struct MouseRing {
  static constexpr std::uint32_t kEntries = 2730;
  std::uint32_t writeIndex;
  std::uint32_t readIndex;
  mouseBufferRingData entries[kEntries];
};
static_assert(sizeof(MouseRing) == 32768 && offsetof(MouseRing, readIndex) == 4 &&
              offsetof(MouseRing, entries) == 8);

struct SharedRegion {
  KeyboardRing keyboard;
  MouseRing mouse;
};
static_assert(sizeof(SharedRegion) == 65536 && offsetof(SharedRegion, mouse) == 32768);

// Returns true if the address may be a region's: 65536 bytes of writable memory of this process
// that belong to no image. Guards against a wrong address from the driver.
bool IsSharedRegion(std::uint64_t address);

// Requests the region from the driver and stores its address. Returns false after a logged failure
// to send the request, or if the address cannot be a region's. Returns true without an address if a
// request that was sent fails: the session then runs without input, since the pumps end at once.
// Waits for the firmware without a time-out. The session's set-up.
bool InitializeKeyboardMousePointers();

// Clears the addresses. Requires that no pump runs. The next session must not use an address that
// was given back, even if its own request returns none.
void UninitializeKeyboardMousePointers();

// Copies an entry word by word, each atomic: the firmware may write it at the same time.
template <class Entry>
Entry LoadEntry(Entry* entry) {
  constexpr std::size_t kWords = sizeof(Entry) / 4;
  static_assert(sizeof(Entry) == kWords * 4);
  std::array<std::uint32_t, kWords> words;
  auto* from = reinterpret_cast<std::uint32_t*>(entry);
  for (std::size_t i = 0; i < kWords; ++i)
    words[i] = std::atomic_ref(from[i]).load(std::memory_order_relaxed);
  return std::bit_cast<Entry>(words);
}

// Calls handle(entry) for the entries from readIndex up to the writeIndex loaded at the call, and
// moves readIndex behind each after it was handled. Returns true if there was any. Handles none
// while writeIndex is the last legal index or beyond: no entry is lost, the run after the wrap
// handles them all. Sets a readIndex outside the ring, which only a broken peer can store, to 0.
// `stop` ends the run between two entries. One consumer thread.
template <class Ring, class Handle>
bool DrainRing(Ring* ring, const std::atomic<bool>& stop, Handle handle) {
  assert(ring != nullptr && reinterpret_cast<std::uintptr_t>(ring) % alignof(Ring) == 0);
  const std::uint32_t writeIndex =
      std::atomic_ref(ring->writeIndex).load(std::memory_order_acquire);
  if (writeIndex >= Ring::kEntries - 1) return false;
  std::atomic_ref sharedReadIndex(ring->readIndex);
  std::uint32_t readIndex = sharedReadIndex.load(std::memory_order_relaxed);
  if (readIndex >= Ring::kEntries) {
    readIndex = 0;
    sharedReadIndex.store(readIndex, std::memory_order_release);
  }
  if (readIndex == writeIndex) return false;
  while (readIndex != writeIndex && !stop.load(std::memory_order_relaxed)) {
    handle(LoadEntry(&ring->entries[readIndex]));
    readIndex = readIndex + 1 == Ring::kEntries ? 0 : readIndex + 1;
    sharedReadIndex.store(readIndex, std::memory_order_release);
  }
  return true;
}

}  // namespace stewardry
