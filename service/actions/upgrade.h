// The upgrade notice: one text of the firmware for the software upgrade tool. The reader thread
// writes it and the upgrade pipe's thread reads it out. The service does not interpret the text and
// starts nothing because of it. There is no lock: the reader thread may be ended from outside at
// any instruction, and the pipe's thread lives on.
//
// Invariants:
// 1. gUpgradeNotice has two places. The one that gUpgradeState names holds the last notice and is
//    not written; a new notice is written to the other place, and then a new state names that one.
// 2. gUpgradePending and gUpgradeReadCount are fields of that state, which changes as a whole. A
//    read counts by exchanging the state with which it began. If a notice has arrived in between,
//    the exchange fails and the read starts again: so half a text is never returned, and a read
//    never counts for another notice than its own.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

namespace stewardry {

constexpr std::size_t kUpgradeNoticeSize = 256;  // a text that fills it has no terminator
constexpr std::uint16_t kUpgradeReads = 10;      // then the notice is withdrawn

// One word for the processor, so that an atomic of it needs no lock. Stored with release and loaded
// with acquire: a thread that reads a notice's number finds its text.
struct alignas(8) UpgradeState {
  std::uint32_t number = 0;             // of the last notice; the last bit is its place
  std::uint16_t gUpgradePending = 0;    // 1 while the text is on offer
  std::uint16_t gUpgradeReadCount = 0;  // how many times it has been read
};
static_assert(sizeof(UpgradeState) == 8 && std::atomic<UpgradeState>::is_always_lock_free);

using UpgradeNoticeWords = std::array<std::uint64_t, kUpgradeNoticeSize / 8>;

// The place of one text. Each word is stored with release and loaded with acquire: a read that
// meets a word of a later notice has also seen the state that was stored before that word, and its
// exchange of the state fails.
class UpgradeNoticePlace {
 public:
  void Store(const UpgradeNoticeWords& words) {
    for (std::size_t i = 0; i < words.size(); ++i)
      words_[i].store(words[i], std::memory_order_release);
  }
  UpgradeNoticeWords Load() const {
    UpgradeNoticeWords words;
    for (std::size_t i = 0; i < words.size(); ++i)
      words[i] = words_[i].load(std::memory_order_acquire);
    return words;
  }

 private:
  std::array<std::atomic<std::uint64_t>, kUpgradeNoticeSize / 8> words_{};
};

// Handles command 0x0A: offers the notice in the place of an older one, and counts its reads from
// 0. The text ends at its first zero byte, else with the payload; it is cut at kUpgradeNoticeSize
// bytes. Reader thread only.
void SoftwareUpgradeCommand(const std::uint8_t* payload, std::uint32_t length);

// Copies the notice on offer to `text`, zero-terminated, and counts the read; the tenth one
// withdraws the notice. Returns false, with `text` unchanged, if none is on offer. One thread at a
// time.
bool TakeUpgradeNotice(std::span<char, kUpgradeNoticeSize + 1> text);

}  // namespace stewardry
