#include "lab/firmware/kvm/input_rings.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "lab/firmware/core/records.h"

namespace orrin {
namespace {

constexpr std::uint32_t kWriteIndexPlace = 0;
constexpr std::uint32_t kReadIndexPlace = 4;

}  // namespace

void InputRing::PokeIndex(std::uint32_t place, std::uint32_t index) {
  assert(index < layout_.entries);
  region_.PokeRegion(layout_.offset + place, BytesOf(index));
}

void InputRing::Reset() {
  waiting_.clear();
  writeIndex_ = readIndex_ = 0;
  isAbandoned_ = false;
  region_.PokeRegion(layout_.offset, Bytes(kRingIndexes));
}

void InputRing::Put(ByteView entry) {
  assert(entry.size() == layout_.entrySize);
  if (Waiting() >= kMaxWaiting) {
    ++dropped_;
    return;
  }
  waiting_.insert(waiting_.end(), entry.begin(), entry.end());
}

// Returns how many entries may be written from the write index on up to the ring's end.
std::uint32_t InputRing::FreeInRun() const {
  assert(writeIndex_ < layout_.entries);
  const std::uint32_t last = layout_.entries - 1;
  if (readIndex_ > writeIndex_) return readIndex_ - writeIndex_ - 1;
  // Invariants 2 and 3: with the read index at 0, the write index may become neither 0 nor `last`.
  return readIndex_ == 0 ? last - std::min(writeIndex_ + 1, last) : layout_.entries - writeIndex_;
}

void InputRing::Flush() {
  while (!waiting_.empty() && !isAbandoned_) {
    const auto count = std::min<std::size_t>(FreeInRun(), Waiting());
    if (count == 0) return;
    const auto end = waiting_.begin() + static_cast<std::ptrdiff_t>(count * layout_.entrySize);
    const Bytes entries(waiting_.begin(), end);
    waiting_.erase(waiting_.begin(), end);
    region_.PokeRegion(layout_.offset + kRingIndexes + writeIndex_ * layout_.entrySize, entries);
    writeIndex_ = (writeIndex_ + static_cast<std::uint32_t>(count)) % layout_.entries;
    PokeIndex(kWriteIndexPlace, writeIndex_);
  }
}

void InputRing::RequestIndexes() {
  if (awaited_ > 0) return;
  ++awaited_;
  region_.PeekRegion(layout_.offset, kRingIndexes);
}

void InputRing::HandleIndexes(ByteView indexes) {
  if (awaited_ > 0) --awaited_;
  if (indexes.size() != kRingIndexes) return;
  std::uint32_t read = 0;
  std::memcpy(&read, indexes.data() + kReadIndexPlace, sizeof read);
  if (read >= layout_.entries) return;
  readIndex_ = read;
  // An answer to a request before Abandon may be older than the host's last read.
  if (isAbandoned_ && awaited_ > 0) return;
  if (isAbandoned_) SetWriteIndex(read);
  isAbandoned_ = false;
  Flush();
}

void InputRing::Abandon() {
  waiting_.clear();
  isAbandoned_ = true;
  ++awaited_;
  region_.PeekRegion(layout_.offset, kRingIndexes);
}

void InputRing::Forget() {
  waiting_.clear();
  isAbandoned_ = false;
  awaited_ = 0;
}

void InputRing::SetWriteIndex(std::uint32_t index) {
  writeIndex_ = index;
  PokeIndex(kWriteIndexPlace, index);
}

void InputRing::SetReadIndex(std::uint32_t index) {
  readIndex_ = index;
  PokeIndex(kReadIndexPlace, index);
}

}  // namespace orrin
