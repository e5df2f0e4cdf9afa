#include "lab/firmware/kvm/input_rings.h"

#include <algorithm>
#include <cstring>

#include "lab/firmware/core/records.h"

namespace orrin {
namespace {

constexpr std::uint32_t kWriteIndexPlace = 0;
constexpr std::uint32_t kReadIndexPlace = 4;

}  // namespace

void InputRing::PokeWord(std::uint32_t place, std::uint32_t value) {
  region_.PokeRegion(layout_.offset + place, BytesOf(value));
}

void InputRing::Reset() {
  waiting_.clear();
  writeIndex_ = readIndex_ = 0;
  isAbandoned_ = false;
  region_.PokeRegion(layout_.offset, Bytes(kRingIndexes));
}

void InputRing::Put(ByteView entry) {
  if (Waiting() >= kMaxWaiting) {
    dropped_++;
    return;
  }
  waiting_.insert(waiting_.end(), entry.begin(), entry.end());
}

// Entries that may be written from the write index on without passing the ring's end.
std::uint32_t InputRing::FreeInRun() const {
  const std::uint32_t last = layout_.entries - 1;
  if (readIndex_ > writeIndex_) return readIndex_ - writeIndex_ - 1;
  // Up to the end; the step to index 0 needs that place free, the step to the last place another
  // reader's place than 0.
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
    PokeWord(kWriteIndexPlace, writeIndex_);
  }
}

void InputRing::Ask() {
  if (awaited_ > 0) return;
  awaited_++;
  region_.PeekRegion(layout_.offset, kRingIndexes);
}

void InputRing::Answer(ByteView indexes) {
  if (awaited_ > 0) awaited_--;
  if (indexes.size() != kRingIndexes) return;
  std::uint32_t read = 0;
  std::memcpy(&read, indexes.data() + kReadIndexPlace, sizeof(read));
  if (read >= layout_.entries) return;
  readIndex_ = read;
  // An answer to a question asked before the host's end of the ring stood still says too little.
  if (isAbandoned_ && awaited_ > 0) return;
  if (isAbandoned_) SetWriteIndex(read);
  isAbandoned_ = false;
  Flush();
}

void InputRing::Abandon() {
  waiting_.clear();
  isAbandoned_ = true;
  awaited_++;
  region_.PeekRegion(layout_.offset, kRingIndexes);
}

void InputRing::Forget() {
  waiting_.clear();
  isAbandoned_ = false;
  awaited_ = 0;
}

void InputRing::SetWriteIndex(std::uint32_t index) {
  writeIndex_ = index;
  PokeWord(kWriteIndexPlace, index);
}

void InputRing::SetReadIndex(std::uint32_t index) {
  readIndex_ = index;
  PokeWord(kReadIndexPlace, index);
}

}  // namespace orrin
