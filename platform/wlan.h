// The wireless service. On Linux: sysfs for the interfaces, and a socket in the lab folder that
// injects "connected" and "disconnected".
#pragma once

#include <cstdint>
#include <vector>

#include "platform/handle.h"

namespace platform {

// A client handle of the WLAN service; null is none. Kept for the process's life.
using WlanHandle = RawHandle;

constexpr std::uint32_t kWlanNotificationSourceAcm = 8;  // WLAN_NOTIFICATION_SOURCE_ACM

// The two fields of WLAN_NOTIFICATION_DATA that are read.
struct WlanNotification {
  std::uint32_t source;
  std::uint32_t code;
};
using WlanCallback = void (*)(const WlanNotification& data, void* context);

// WlanOpenHandle with client version 2: 0 or an error.
std::uint32_t WlanOpenHandle(WlanHandle* handle);
// WlanRegisterNotification(handle, source, TRUE, callback, context, NULL, NULL): the callback runs
// on a thread of the platform's until the process ends. 0 or an error.
std::uint32_t WlanRegisterNotification(WlanHandle handle, std::uint32_t source,
                                       WlanCallback callback, void* context);

struct WlanInterfaceList {
  std::uint32_t index = 0;            // dwIndex
  std::vector<std::uint32_t> states;  // isState of each interface; 1 is connected
};
// WlanEnumInterfaces, and WlanFreeMemory of what it gave: 0 or an error.
std::uint32_t WlanEnumInterfaces(WlanHandle handle, WlanInterfaceList* list);

}  // namespace platform
