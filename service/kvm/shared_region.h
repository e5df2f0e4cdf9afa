// The memory that the firmware and the service share in a KVM session: two rings, of key events and
// of pointer events. A memory format: all integers little-endian, all offsets fixed.
//
// 1. The firmware writes entries and `writeIndex`, the service `readIndex`. Equal indexes mean
//    empty, so a writer leaves one entry free; the index behind the last is 0.
// 2. No lock stands between them. An entry is written before the index that covers it, so the index
//    is read with acquire; readIndex is stored with release, once its entry is done with.
// 3. Nothing in the region is trusted: an index never leads outside it (DrainRing).
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace stewardry {

struct KeyboardRing {
  static constexpr std::uint32_t kEntries = 8190;
  std::uint32_t writeIndex;
  std::uint32_t readIndex;
  // Bit 31: pressed, else released. Bits 15 to 0: the X keysym. The others aren't read.
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

// Where each ring lies in this process; 0 while the region isn't there. Written by the thread that
// builds or ends a session, while no pump runs; the pumps read them once, at their start. Relaxed:
// the start of a thread orders them.
extern std::atomic<std::uint64_t> KeyBoardBufferVirtualAddress;
extern std::atomic<std::uint64_t> MouseBufferVirtualAddress;
// 1 once the region has been asked for. Relaxed: only compared.
extern std::atomic<std::uint8_t> gKeyboardMouseReady;
// 1 once the keyboard's readIndex was zeroed, at the first session of the process. Relaxed.
extern std::atomic<std::uint8_t> gKeyboardTailReset;

// True if a region may lie there: 65536 bytes of this process's memory that can be written, and
// aren't a program's own. The driver is asked for its address; this is what a wrong one meets.
bool IsSharedRegion(std::uint64_t address);

// Asks the driver for the region and keeps its address. False after a logged failure to ask, or
// when the firmware gives none that may be one. A request that was started and then fails gives
// true without an address: the session then runs without input, since the pumps end at once. Waits
// for the firmware without a time-out. The thread that builds a session.
bool InitializeKeyboardMousePointers();

// Forgets the region. FinishKVMSession calls it when the pumps have gone: the next session must not
// run on an address that was given back, even if its own request ends without one.
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

// Hands the entries from readIndex up to the writeIndex found at the call to handle(entry), and
// moves readIndex behind each once it has been handled. True if there was any. It stands still
// while writeIndex is the last legal index or beyond: no entry is lost, the run that follows the
// wrap takes them all. A readIndex outside the ring, which only a broken peer can leave there,
// is set to 0. `stop` ends the run between two entries. One consumer thread.
template <class Ring, class Handle>
bool DrainRing(Ring* ring, const std::atomic<bool>& stop, Handle handle) {
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

// The empty turn of a pump, which polls without a pause: a hint to the processor, and now and then
// the rest of the time slice to whoever is ready, so that two pumps don't starve two processors.
void SpinOnce();

}  // namespace stewardry
