#include "service/actions/upgrade.h"

#include <cassert>
#include <cstring>

#include "service/actions/actions_state.h"
#include "service/diagnostics/service_log.h"

namespace stewardry {

namespace {

// Returns the text of a payload with zeroes behind it, so that nothing of an older text is left.
UpgradeNoticeWords MakeNotice(const std::uint8_t* payload, std::size_t length) {
  UpgradeNoticeWords words{};
  if (length > kUpgradeNoticeSize) length = kUpgradeNoticeSize;
  const void* end = length == 0 ? nullptr : std::memchr(payload, 0, length);
  if (end != nullptr)
    length = static_cast<std::size_t>(static_cast<const std::uint8_t*>(end) - payload);
  if (length > 0) std::memcpy(words.data(), payload, length);
  return words;
}

UpgradeState CountRead(UpgradeState state) {
  assert(state.gUpgradePending == 1 && state.gUpgradeReadCount < kUpgradeReads);
  if (++state.gUpgradeReadCount == kUpgradeReads)
    state.gUpgradePending = state.gUpgradeReadCount = 0;
  return state;
}

}  // namespace

void SoftwareUpgradeCommand(const std::uint8_t* payload, std::uint32_t length) {
  LogInfo("Attempting Software Upgrade");
  // Relaxed: this thread alone stores the number.
  const std::uint32_t number = gActions->gUpgradeState.load(std::memory_order_relaxed).number + 1;
  gActions->gUpgradeNotice[number & 1].Store(MakeNotice(payload, length));
  gActions->gUpgradeState.store({number, 1, 0}, std::memory_order_release);
}

bool TakeUpgradeNotice(std::span<char, kUpgradeNoticeSize + 1> text) {
  std::atomic<UpgradeState>& shared = gActions->gUpgradeState;
  UpgradeState state = shared.load(std::memory_order_acquire);
  while (state.gUpgradePending != 0) {
    const UpgradeNoticeWords words = gActions->gUpgradeNotice[state.number & 1].Load();
    if (!shared.compare_exchange_weak(state, CountRead(state), std::memory_order_acq_rel,
                                      std::memory_order_acquire))
      continue;
    std::memcpy(text.data(), words.data(), kUpgradeNoticeSize);
    text.back() = 0;
    return true;
  }
  return false;
}

}  // namespace stewardry
