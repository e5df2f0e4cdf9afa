// The two rings in the memory that firmware and host share: the firmware's end, which writes. The
// memory is the host's, so it is written and read through messages.
//
// Invariants:
// 1. Entries are written before the index that publishes them, in messages that keep their order.
// 2. Equal indexes mean empty, so one entry stays free.
// 3. A host reads nothing while the write index is the ring's last place. With the read index at 0
//    the ring would be full there and both ends would wait: that step waits until the host has
//    read.
// 4. Events that find no room wait in their order. More than kMaxWaiting are dropped and counted.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "lab/firmware/core/bytes.h"

namespace orrin {

// Sends messages to the shared region.
class RegionAccess {
 public:
  virtual ~RegionAccess() = default;
  // Stores bytes within the region.
  virtual void PokeRegion(std::uint32_t offset, ByteView bytes) = 0;
  // Requests bytes. The answer goes to InputRing::HandleIndexes.
  virtual void PeekRegion(std::uint32_t offset, std::uint32_t count) = 0;
};

// The layout of one ring. The first word is the write index, the second the read index.
struct RingLayout {
  const char* name;
  std::uint32_t offset;  // of the write index in the region
  std::uint32_t entries;
  std::uint32_t entrySize;
};
constexpr std::uint32_t kRingSize = 32768;
constexpr std::uint32_t kRingIndexes = 8;
constexpr RingLayout kKeyboardRing = {"keyboard", 0, 8190, 4};
constexpr RingLayout kPointerRing = {"mouse", kRingSize, 2730, 12};
static_assert(kKeyboardRing.entries * kKeyboardRing.entrySize + kRingIndexes == kRingSize &&
              kPointerRing.entries * kPointerRing.entrySize + kRingIndexes == kRingSize);

// One pointer event in the shared region.
struct PointerEntry {
  std::uint32_t buttons;  // bit 0 left, 1 middle, 2 right, 3 wheel up, 4 wheel down
  std::int32_t x;
  std::int32_t y;
};
static_assert(sizeof(PointerEntry) == 12);

// One key event in the shared region: bit 31 pressed, the low 16 bits the keysym.
constexpr std::uint32_t KeyEntry(std::uint32_t keysym, bool pressed) {
  return (keysym & 0xFFFF) | (pressed ? 0x80000000u : 0);
}

// One thread.
class InputRing {
 public:
  static constexpr std::size_t kMaxWaiting = 65536;

  InputRing(const RingLayout& layout, RegionAccess& region) : layout_(layout), region_(region) {}

  // Sets both indexes to 0, also in the memory. For a host that has not seen the ring.
  void Reset();
  // Appends one event. Requires the ring's entry size.
  void Put(ByteView entry);
  // Writes the events that there is room for.
  void Flush();
  // Requests the host's read index, unless an answer is awaited.
  void RequestIndexes();
  // Returns true if events wait for room.
  bool IsBlocked() const { return !waiting_.empty(); }
  // Takes the answer to RequestIndexes: both indexes. Ignores a read index outside the ring.
  void HandleIndexes(ByteView indexes);
  // Drops waiting events and, once the host's read index is known, skips the unread entries: the
  // keys of one viewer are never played to the next.
  void Abandon();
  // Drops waiting events and awaited answers: the link has ended.
  void Forget();
  // Sets an index in the memory and here, without regard to the entries. Requires index < entries.
  void SetWriteIndex(std::uint32_t index);
  void SetReadIndex(std::uint32_t index);

  const RingLayout& Layout() const { return layout_; }
  std::uint32_t WriteIndex() const { return writeIndex_; }
  std::size_t Waiting() const { return waiting_.size() / layout_.entrySize; }
  std::uint64_t Dropped() const { return dropped_; }

 private:
  std::uint32_t FreeInRun() const;
  void PokeIndex(std::uint32_t place, std::uint32_t index);

  const RingLayout& layout_;
  RegionAccess& region_;
  std::uint32_t writeIndex_ = 0;
  std::uint32_t readIndex_ = 0;  // as last reported: the host is there or further
  std::deque<std::uint8_t> waiting_;
  std::uint64_t dropped_ = 0;
  std::uint32_t awaited_ = 0;  // answers
  bool isAbandoned_ = false;
};

}  // namespace orrin
