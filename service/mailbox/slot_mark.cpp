// The end of a use.
#include "service/mailbox/slot_mark.h"

#include <chrono>

namespace stewardry {

void SlotMark::AwaitEndOfUse() {
  constexpr std::chrono::seconds kLongestUse{2};
  const auto end = std::chrono::steady_clock::now() + kLongestUse;
  while (InUse()) {
    if (std::chrono::steady_clock::now() >= end)
      return used_.store(false, std::memory_order_relaxed);  // or each later close would wait again
    platform::Sleep(0);
  }
}

}  // namespace stewardry
