// Notifications of changes to the host's IPv4 interfaces and addresses. On Linux they come from
// rtnetlink.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

// MIB_NOTIFICATION_TYPE.
constexpr std::uint32_t kMibParameterNotification = 0;
constexpr std::uint32_t kMibAddInstance = 1;
constexpr std::uint32_t kMibDeleteInstance = 2;

// PIPINTERFACE_CHANGE_CALLBACK. `row` is Windows' MIB_IPINTERFACE_ROW and is not read here; it is
// null on Linux.
using IpChangeCallback = void (*)(void* context, const void* row, std::uint32_t type);

// Registers a callback for changes (NotifyIpInterfaceChange for AF_INET, without an initial
// notification). It runs on a thread of the platform until the registration is cancelled, once for
// one change or several. Requires that the process has no other registration. Returns an error
// code.
std::uint32_t NotifyIpInterfaceChange(IpChangeCallback callback, void* context, RawHandle* handle);

// Cancels the registration (CancelMibChangeNotify2). Blocks while a callback runs, so it must not
// be called from one. Returns an error code.
std::uint32_t CancelMibChangeNotify2(RawHandle handle);

}  // namespace platform
