// The inventory's state: what the reports to the firmware leave behind for later ones.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/handle.h"
#include "platform/wlan.h"
#include "service/mailbox/records.h"
#include "service/mailbox/shared_record.h"

namespace stewardry {

struct Reports {
  // Written by every thread that sends a report or accepts a connection: server, KVM server,
  // resume report, WLAN callback. Read by these and the tray pipe.

  // The last IP record. Unordered between its words; see SharedRecord.
  SharedRecord<IPInfo> gIPInfo;
  // 1 once the firmware has answered with a real version text; the control handler stores 0 at
  // stop. Relaxed: it publishes nothing else.
  std::atomic<std::uint32_t> gTavrinRunning{0};
  // The client handle of the WLAN service: null until the first use, then open for the life of the
  // process. Stored with release and loaded with acquire, since the opening thread wrote what the
  // platform keeps behind it.
  std::atomic<platform::WlanHandle> gWlanHandle{nullptr};
};

extern platform::ProcessLifetime<Reports> gReports;

}  // namespace stewardry
