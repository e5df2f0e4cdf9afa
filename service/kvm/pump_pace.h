// How a pump polls its ring. The firmware gives no signal with an entry, so a pump polls: without a
// pause while entries come and for kEager after the last, then with waits that double up to
// kLongestMicroseconds. That is a deliberate choice over polling without any pause: an entry after
// a rest is delayed by a millisecond, which no person can notice, while two threads that always
// poll occupy two processors for the whole session.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/thread.h"
#include "service/kvm/shared_region.h"

namespace stewardry {

// The pauses of one pump. Made and used on the pump's thread.
class PumpPace {
 public:
  // Returns at once after a poll that found entries, else pauses before the next. A pump whose ring
  // has held nothing yet starts with the longest wait.
  void AfterPoll(bool found);

 private:
  static constexpr std::chrono::milliseconds kEager{3};
  static constexpr std::uint32_t kShortestMicroseconds = 50;
  static constexpr std::uint32_t kLongestMicroseconds = 1000;

  using Clock = std::chrono::steady_clock;
  platform::WaitTimer timer_ = platform::CreateWaitTimer();
  Clock::time_point eagerUntil_{};
  std::uint32_t microseconds_ = kLongestMicroseconds;  // of the next wait
};

// Passes the ring's entries to handle(entry) until `stop` is set, which is seen after a wait at the
// latest.
template <class Ring, class Handle>
void RunPump(Ring* ring, const std::atomic<bool>& stop, Handle handle) {
  PumpPace pace;
  while (!stop.load(std::memory_order_relaxed)) pace.AfterPoll(DrainRing(ring, stop, handle));
}

}  // namespace stewardry
