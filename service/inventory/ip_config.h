// The host's IPv4 configuration in the record that the firmware knows. The same record announces a
// connection: the listeners put the peer and their port into gIPInfo and send it. All lines go to
// the WMI log.
#pragma once

#include <cstdint>

#include "service/mailbox/records.h"
#include "service/mailbox/shared_record.h"

namespace stewardry {

constexpr std::uint32_t kReportPort = 623;              // localPort of a report
constexpr std::uint32_t kLoopbackAddress = 0x0100007F;  // 127.0.0.1 in sin_addr form

// The last IP record. Written by status reports, the WLAN callback and the accepts, without a lock
// between them; read by the tray pipe too. SharedRecord tells what a reader may see.
extern SharedRecord<IPInfo> gIPInfo;

// The adapters that a search takes.
constexpr std::uint32_t kAnyAdapter = 0;
constexpr std::uint32_t kWirelessAdapter = 1;

// Looks for the first adapter that is up (with `wlan` kWirelessAdapter: and isn't Ethernet) and
// writes its configuration to *out as a whole, with `port` as localPort and zero in the peer fields
// and the end marker, which the sender sets. There is no result, and one of three things happens:
// *out gets the configuration; *out is all zero but for localPort (the platform call failed); *out
// stays as it was (no memory, or no adapter fits). The loopback adapter fits both searches, so the
// address can be kLoopbackAddress. Any thread.
void GetIPCompleteInfomartion(SharedRecord<IPInfo>* out, std::uint32_t port, std::uint32_t wlan);

}  // namespace stewardry
