// A watch on the host's addresses, wider than the one on the wireless network: any adapter counts,
// and a new address is reported to the firmware. No flow of the service registers it; the stop
// unregisters it.
#pragma once

#include <cstdint>

namespace stewardry {

// Registers IpInterfaceChangeCallback for changes of the host's interfaces. Returns 1, or 0 on
// failure, also while a watch exists. One thread at a time.
std::uint32_t RegisterNetworkEvent();

// Closes the watch's handle and logs that to the service log if it worked. Does nothing without a
// watch. Blocks for up to a second on a callback that waits for a silent firmware; after that a
// thread of its own finishes the work. Must not be called from a callback.
void UnregisterNetworkEvent();

// Handles a change of the host's interfaces: reports an address that was not reported before.
// `notificationType` is the kind of the search for the adapter; `row` is ignored. While a callback
// is at work, further ones report nothing. Runs on threads of the platform's.
void IpInterfaceChangeCallback(void* context, const void* row, std::uint32_t notificationType);

// Reads the host's address again. Sends the connection word and the IP record unless it is the
// loopback address or the one last reported. Called by the callback at work.
void ReportIpChange(void* context, const void* row, std::uint32_t notificationType);

}  // namespace stewardry
