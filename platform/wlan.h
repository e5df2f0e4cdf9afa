// The wireless service. On Linux the interfaces come from sysfs and the notifications from a socket
// in the lab folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/guid.h"
#include "platform/handle.h"

namespace platform {

// A client handle of the WLAN service. The one with the notifications is never closed.
using WlanHandle = RawHandle;

constexpr std::uint32_t kWlanNotificationSourceAcm = 8;  // WLAN_NOTIFICATION_SOURCE_ACM

// The ACM codes that are read.
constexpr std::uint32_t kWlanConnectionComplete = 10;  // wlan_notification_acm_connection_complete
constexpr std::uint32_t kWlanDisconnected = 21;        // wlan_notification_acm_disconnected

// The two fields of WLAN_NOTIFICATION_DATA that are read.
struct WlanNotification {
  std::uint32_t source;
  std::uint32_t code;
};
using WlanCallback = void (*)(const WlanNotification& data, void* context);

// Opens a handle for client version 2. Returns an error code.
std::uint32_t WlanOpenHandle(WlanHandle* handle);
// Closes a handle. Returns an error code.
std::uint32_t WlanCloseHandle(WlanHandle handle);
// Registers the callback, which runs on a thread of the platform until the process exits. Ignores
// duplicate notifications. Requires that the process has no other registration. Returns an error
// code.
std::uint32_t WlanRegisterNotification(WlanHandle handle, std::uint32_t source,
                                       WlanCallback callback, void* context);

constexpr std::uint32_t kWlanStateConnected = 1;     // wlan_interface_state_connected
constexpr std::uint32_t kWlanStateDisconnected = 4;  // wlan_interface_state_disconnected
constexpr std::size_t kWlanStates = 8;               // WLAN_INTERFACE_STATE, from 0 on
struct WlanInterfaceList {
  std::uint32_t index = 0;            // dwIndex
  std::vector<std::uint32_t> states;  // isState of each interface
  std::vector<Guid> guids;            // InterfaceGuid of each
};
// Stores the wireless interfaces in *list, which is empty if there is none. Returns an error code.
std::uint32_t WlanEnumInterfaces(WlanHandle handle, WlanInterfaceList* list);

constexpr std::uint32_t kWlanProfileGroupPolicy = 1;  // WLAN_PROFILE_GROUP_POLICY
constexpr std::uint32_t kWlanProfileUser = 2;         // WLAN_PROFILE_USER
struct WlanProfile {
  std::u16string name;  // strProfileName
  std::uint32_t flags;  // dwFlags
};
// Stores the profiles of an interface in *profiles. Returns an error code.
std::uint32_t WlanGetProfileList(WlanHandle handle, const Guid& interfaceGuid,
                                 std::vector<WlanProfile>* profiles);
// Stores the XML text of a profile in *xml. Returns an error code.
std::uint32_t WlanGetProfile(WlanHandle handle, const Guid& interfaceGuid,
                             const std::u16string& name, std::u16string* xml);

}  // namespace platform
