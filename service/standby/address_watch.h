// A watch on the host's addresses, wider than the one on the wireless network: any adapter counts,
// and a new address is told to the firmware. No flow of the service registers it; it stands ready
// for a caller, and the stop gives its handle back.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/handle.h"

namespace stewardry {

// The notification handle, null without a watch. Written by the two operations below; release and
// acquire, since what the platform keeps behind it was written by the thread that registered.
extern std::atomic<platform::RawHandle> gIpChangeHandle;
// The address that this watch has last reported, in sin_addr form. Written by the one callback at
// work; relaxed, gIpChangeEntry orders one after the other.
extern std::atomic<std::uint32_t> gLastReportedAddress;
// How many callbacks have come in since none was at work. The first one works, and sets it to 0
// when it leaves (release); any other finds more than 1 (acquire) and leaves the work to it.
extern std::atomic<std::uint32_t> gIpChangeEntry;

// Asks to be told of changes. 1 on success, 0 on failure, also while there is a watch already. One
// thread at a time.
std::uint32_t RegisterNetworkEvent();

// Gives the watch's handle back and says so in the service log if that worked. Nothing without a
// watch. Waits up to a second for a callback that is at work, which may be talking to a firmware
// that doesn't answer: the rest then happens on a thread of its own. Must not be called from a
// callback.
void UnregisterNetworkEvent();

// A change of the host's interfaces: reports an address that hasn't been reported. `row` isn't
// looked at. Of several at a time, all but the first report nothing. Runs on threads of the
// platform's.
void IpInterfaceChangeCallback(void* context, const void* row, std::uint32_t notificationType);

// Reads the host's address once more, and if it isn't the loopback address or the one last
// reported, sends the connection word and the IP record. Called by the callback at work.
void ReportIpChange(void* context, const void* row, std::uint32_t notificationType);

}  // namespace stewardry
