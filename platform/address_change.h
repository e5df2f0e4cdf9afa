// Changes of the host's IPv4 interfaces and addresses, told by the platform as they happen. On
// Linux the kernel tells of them over rtnetlink.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

// MIB_NOTIFICATION_TYPE.
constexpr std::uint32_t kMibParameterNotification = 0;
constexpr std::uint32_t kMibAddInstance = 1;
constexpr std::uint32_t kMibDeleteInstance = 2;

// PIPINTERFACE_CHANGE_CALLBACK: `row` is a MIB_IPINTERFACE_ROW of the platform's, which nobody
// here looks into; null on Linux.
using IpChangeCallback = void (*)(void* context, const void* row, std::uint32_t type);

// NotifyIpInterfaceChange(AF_INET, callback, context, FALSE, handle): the callback runs on a thread
// of the platform's until the handle is given back, for one change at a time or for several. One
// registration at a time in a process. 0 or an error.
std::uint32_t NotifyIpInterfaceChange(IpChangeCallback callback, void* context, RawHandle* handle);

// CancelMibChangeNotify2: gives the handle back. It waits for a callback that is running, so it
// must not be called from one. 0 or an error.
std::uint32_t CancelMibChangeNotify2(RawHandle handle);

}  // namespace platform
