// The network adapter that carries the host's connection. No single source has all of it: WMI has
// the adapter and its identity, the interface table its speed, the adapter list whether its address
// came by DHCP. The latter two are searched by the adapter's name. All lines go to the WMI log.
#pragma once

#include <cstdint>
#include <span>

#include "platform/heap.h"
#include "platform/network.h"
#include "service/mailbox/records.h"

namespace stewardry {

// Fills *record, which the caller has zeroed, from the first adapter that WMI lists as connected;
// without one the record stays as it was. Returns 0, or 1 on a WMI failure. Any thread.
std::uint32_t GetNetworkinformation(NetworkInfo* record);

// Returns the speed in bits per second of the first interface of that name (ANSI) that has one; 0
// if none has, 1 if the interface table could not be read. Any thread.
std::uint64_t GetAdapterSpeed(const char* name);

// Returns the speed of the first of these rows whose description, up to its first zero, is `name`
// and whose speed is not 0; 0 if there is none. Filters and virtual twins repeat the name without a
// speed. Any thread.
std::uint64_t SpeedInTable(std::span<const platform::IfRow> rows, const char* name);

// Returns whether the first adapter of that name (ANSI) got its address by DHCP: false if there is
// none or the list could not be read, true without memory for it. Any thread.
bool IsAdapterDhcpEnabled(const char* name);

// A list call of the platform: fills a block of *size bytes and returns 0 or an error. With the
// error for a block that is too small, *size becomes the size needed.
using FillBlock = std::uint32_t (*)(void* block, std::uint32_t* size);

// Allocates a block for a list call: of *size bytes, or of the size that `fill` requests by the
// error `tooSmall`. *size becomes the size of the block. Its content does not count: the caller
// fills it again. Returns an empty owner if the heap has no block. Any thread.
platform::HeapBlock AllocateFor(FillBlock fill, std::uint32_t tooSmall, std::uint32_t* size);

}  // namespace stewardry
