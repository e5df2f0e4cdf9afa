// The host's IPv4 configuration in the firmware's record. The same record announces a connection:
// the listeners put the peer and their port into gIPInfo and send it. All lines go to the WMI log.
#pragma once

#include <cstdint>

#include "platform/network.h"
#include "service/mailbox/records.h"
#include "service/mailbox/shared_record.h"

namespace stewardry {

constexpr std::uint32_t kReportPort = 623;              // localPort of a report
constexpr std::uint32_t kLoopbackAddress = 0x0100007F;  // 127.0.0.1 in sin_addr form

// The kinds of a search.
constexpr std::uint32_t kAnyAdapter = 0;
constexpr std::uint32_t kWirelessAdapter = 1;

// Writes the configuration of the first adapter that is up (with `wlan` kWirelessAdapter: and is
// not Ethernet) to *out as a whole, with `port` as localPort. The peer fields and the end marker
// are 0: the sender sets them. If the platform call fails, *out is zero but for localPort. Without
// memory or an adapter that fits, *out stays as it was. The loopback adapter fits both searches, so
// the address can be kLoopbackAddress. Any thread.
void GetIPCompleteInfomartion(SharedRecord<IPInfo>* out, std::uint32_t port, std::uint32_t wlan);

// The dotted text of an address in sin_addr form.
struct AddressText {
  explicit AddressText(std::uint32_t address) { platform::InetNtop(address, text, sizeof text); }
  char text[16] = "";
};

}  // namespace stewardry
