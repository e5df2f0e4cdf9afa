// The upgrade notice between the reader thread, which writes it, and the upgrade pipe's thread,
// which hands it out. There is no lock, because the reader thread may be ended from outside at any
// instruction, and the pipe's thread lives on.
//
// Invariants:
// 1. gUpgradeNotice has two places. The one that gUpgradeState names holds the last notice and
//    isn't written; a new one goes into the other place, and then a new state names that.
// 2. gUpgradePending and gUpgradeReadCount are fields of that state, which changes as a whole. A
//    reading counts by exchanging the state that it began with. If a notice has come in between the
//    exchange fails and the reading begins anew: so no half of a text is handed out, and no count
//    falls on another notice than the one that was read.
#include "service/actions/upgrade.h"

#include <array>
#include <atomic>
#include <cstring>

#include "service/diagnostics/service_log.h"

namespace stewardry {

namespace {

// One word for the processor, so that an atomic of it needs no lock.
struct alignas(8) UpgradeState {
  std::uint32_t number = 0;             // of the last notice; the last bit is its place
  std::uint16_t gUpgradePending = 0;    // 1 while the text is on offer
  std::uint16_t gUpgradeReadCount = 0;  // how many times it has been handed out
};
static_assert(sizeof(UpgradeState) == 8);

// Written by both threads. Release and acquire: who sees a notice's number finds its text.
std::atomic<UpgradeState> gUpgradeState{UpgradeState{}};
static_assert(std::atomic<UpgradeState>::is_always_lock_free);

using NoticeWords = std::array<std::uint64_t, kUpgradeNoticeSize / 8>;

// One place for a text. Written by the reader thread, read by the pipe's thread. Each word is
// stored with release and loaded with acquire: a reading that meets a word of a later notice has
// also seen the state that was stored before that word, and its exchange of the state fails.
class NoticePlace {
 public:
  void Store(const NoticeWords& words) {
    for (std::size_t i = 0; i < words.size(); ++i)
      words_[i].store(words[i], std::memory_order_release);
  }
  NoticeWords Load() const {
    NoticeWords words;
    for (std::size_t i = 0; i < words.size(); ++i)
      words[i] = words_[i].load(std::memory_order_acquire);
    return words;
  }

 private:
  std::array<std::atomic<std::uint64_t>, kUpgradeNoticeSize / 8> words_{};
};
NoticePlace gUpgradeNotice[2];

// The text of a payload with zeroes behind it, so that nothing of an older text is left.
NoticeWords MakeNotice(const std::uint8_t* payload, std::size_t length) {
  NoticeWords words{};
  if (length > kUpgradeNoticeSize) length = kUpgradeNoticeSize;
  const void* end = length == 0 ? nullptr : std::memchr(payload, 0, length);
  if (end != nullptr)
    length = static_cast<std::size_t>(static_cast<const std::uint8_t*>(end) - payload);
  if (length > 0) std::memcpy(words.data(), payload, length);
  return words;
}

UpgradeState Counted(UpgradeState state) {
  if (++state.gUpgradeReadCount == kUpgradeReads)
    state.gUpgradePending = state.gUpgradeReadCount = 0;
  return state;
}

}  // namespace

void SoftwareUpgradeCommand(const std::uint8_t* payload, std::uint32_t length) {
  LogInfo("Attempting Software Upgrade");
  // Relaxed: the number is this thread's own.
  const std::uint32_t number = gUpgradeState.load(std::memory_order_relaxed).number + 1;
  gUpgradeNotice[number & 1].Store(MakeNotice(payload, length));
  gUpgradeState.store({number, 1, 0}, std::memory_order_release);
}

bool TakeUpgradeNotice(std::span<char, kUpgradeNoticeSize + 1> text) {
  UpgradeState state = gUpgradeState.load(std::memory_order_acquire);
  while (state.gUpgradePending != 0) {
    const NoticeWords words = gUpgradeNotice[state.number & 1].Load();
    if (!gUpgradeState.compare_exchange_weak(state, Counted(state), std::memory_order_acq_rel,
                                             std::memory_order_acquire))
      continue;
    std::memcpy(text.data(), words.data(), kUpgradeNoticeSize);
    text.back() = 0;
    return true;
  }
  return false;
}

}  // namespace stewardry
