#include "service/kvm/pump_pace.h"

#include <algorithm>

namespace stewardry {

void PumpPace::AfterPoll(bool found) {
  if (found) {
    eagerUntil_ = Clock::now() + kEager;
    microseconds_ = kShortestMicroseconds;
    return;
  }
  if (Clock::now() < eagerUntil_) {
    // Each hint is some tens of nanoseconds. The relay may be ready on this processor.
    constexpr int kHints = 32;
    for (int i = 0; i < kHints; ++i) platform::PauseProcessor();
    platform::SwitchToThread();
    return;
  }
  platform::WaitMicroseconds(timer_, microseconds_);
  microseconds_ = std::min(2 * microseconds_, kLongestMicroseconds);
}

}  // namespace stewardry
