// The actions' state: what a command of the firmware leaves behind for a later event.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/handle.h"
#include "service/actions/indications.h"
#include "service/actions/power_actions.h"
#include "service/actions/upgrade.h"

namespace stewardry {

struct ActionsState {
  // Written by the reader thread; the delay threads clear it.

  // The pending power option, one of the kPower values: a later command overwrites an earlier one.
  // Read by the reader thread. Relaxed: it publishes nothing else.
  std::atomic<std::uint8_t> gPowerOption{kPowerNone};

  // Written and read by the reader thread alone.

  // The last subscription, with both texts terminated; an unsubscribe does not change it.
  IndicationSubscription gIndicationSubscription{};
  // 1 while the subscription is in force. It is not kept over a restart. Relaxed.
  std::atomic<std::uint8_t> gIndicationSubscribed{0};

  // Written by the reader thread and the upgrade pipe's thread; see upgrade.h.

  std::atomic<UpgradeState> gUpgradeState{UpgradeState{}};
  UpgradeNoticePlace gUpgradeNotice[2];
};

extern platform::ProcessLifetime<ActionsState> gActions;

}  // namespace stewardry
