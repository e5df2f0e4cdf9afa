// The network adapter that carries the host's connection. No source has all of it: WMI gives the
// adapter and its identity, the interface table its speed, the adapter list whether its address
// came by DHCP. The latter two are searched by the adapter's name. All lines go to the WMI log.
#pragma once

#include <cstdint>
#include <span>

#include "platform/network.h"
#include "service/mailbox/records.h"

namespace stewardry {

// Fills *record, which the caller has zeroed, from the first adapter that WMI lists as connected.
// 0, also without a connected adapter, which leaves the record as it was; 1 on a WMI failure. Any
// thread.
std::uint32_t GetNetworkinformation(NetworkInfo* record);

// The speed in bits per second of the first interface of that name (ANSI) that has one; 0 if none
// has, 1 if the interface table couldn't be read.
std::uint64_t GetAdapterSpeed(const char* name);

// The speed of the first of these rows that has that name, up to its first zero, and a speed; 0 if
// there is none. Any thread.
std::uint64_t SpeedInTable(std::span<const platform::IfRow> rows, const char* name);

// Whether the first adapter of that name (ANSI) got its address by DHCP. False if there is none or
// the list couldn't be read; true without memory for it.
bool IsAdapterDhcpEnabled(const char* name);

}  // namespace stewardry
