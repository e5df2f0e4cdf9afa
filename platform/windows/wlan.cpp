// Windows calls Notify, a callback of its own type, which calls the one callback of the process.
#include "platform/wlan.h"

#include <atomic>
#include <bit>
#include <cassert>
#include <cwchar>
#include <memory>

#include "platform/windows/runtime/guid_cast.h"
#include "platform/windows/runtime/windows_api.h"
// This needs windows.h.
#include <wlanapi.h>

namespace platform {

// mingw-w64 does not declare WLAN_PROFILE_GROUP_POLICY.
static_assert(kWlanNotificationSourceAcm == WLAN_NOTIFICATION_SOURCE_ACM &&
              kWlanProfileUser == WLAN_PROFILE_USER &&
              kWlanConnectionComplete == wlan_notification_acm_connection_complete &&
              kWlanDisconnected == wlan_notification_acm_disconnected &&
              kWlanStateConnected == wlan_interface_state_connected &&
              kWlanStateDisconnected == wlan_interface_state_disconnected &&
              kWlanStates == wlan_interface_state_authenticating + 1);

namespace {

struct FreeWlanMemory {
  void operator()(void* block) const { ::WlanFreeMemory(block); }
};

// Written before the registration, read on a thread of Windows. Release and acquire, because
// Windows documents no order between the two.
std::atomic<WlanCallback> gCallback{nullptr};

void WINAPI Notify(WLAN_NOTIFICATION_DATA* data, void* context) {
  if (data == nullptr) return;
  const WlanNotification notification{data->NotificationSource, data->NotificationCode};
  gCallback.load(std::memory_order_acquire)(notification, context);
}

}  // namespace

std::uint32_t WlanOpenHandle(WlanHandle* handle) {
  DWORD negotiated = 0;
  return ::WlanOpenHandle(2, nullptr, &negotiated, handle);
}

std::uint32_t WlanCloseHandle(WlanHandle handle) { return ::WlanCloseHandle(handle, nullptr); }

std::uint32_t WlanRegisterNotification(WlanHandle handle, std::uint32_t source,
                                       WlanCallback callback, void* context) {
  assert(callback != nullptr);
  gCallback.store(callback, std::memory_order_release);
  return ::WlanRegisterNotification(handle, source, TRUE, Notify, context, nullptr, nullptr);
}

std::uint32_t WlanEnumInterfaces(WlanHandle handle, WlanInterfaceList* list) {
  WLAN_INTERFACE_INFO_LIST* raw = nullptr;
  const DWORD error = ::WlanEnumInterfaces(handle, nullptr, &raw);
  const std::unique_ptr<WLAN_INTERFACE_INFO_LIST, FreeWlanMemory> found(raw);
  *list = {};
  if (error != ERROR_SUCCESS || !found) return error;
  list->index = found->dwIndex;
  for (DWORD i = 0; i < found->dwNumberOfItems; ++i) {
    const WLAN_INTERFACE_INFO& row = found->InterfaceInfo[i];
    list->states.push_back(static_cast<std::uint32_t>(row.isState));
    list->guids.push_back(std::bit_cast<Guid>(row.InterfaceGuid));
  }
  return error;
}

std::uint32_t WlanGetProfileList(WlanHandle handle, const Guid& interfaceGuid,
                                 std::vector<WlanProfile>* profiles) {
  const GUID guid = WindowsGuid(interfaceGuid);
  WLAN_PROFILE_INFO_LIST* raw = nullptr;
  const DWORD error = ::WlanGetProfileList(handle, &guid, nullptr, &raw);
  const std::unique_ptr<WLAN_PROFILE_INFO_LIST, FreeWlanMemory> found(raw);
  profiles->clear();
  if (error != ERROR_SUCCESS || !found) return error;
  for (DWORD i = 0; i < found->dwNumberOfItems; ++i) {
    const WLAN_PROFILE_INFO& row = found->ProfileInfo[i];
    const auto* name = reinterpret_cast<const char16_t*>(row.strProfileName);
    profiles->push_back(
        {std::u16string(name, ::wcsnlen(row.strProfileName, WLAN_MAX_NAME_LENGTH)), row.dwFlags});
  }
  return error;
}

std::uint32_t WlanGetProfile(WlanHandle handle, const Guid& interfaceGuid,
                             const std::u16string& name, std::u16string* xml) {
  const GUID guid = WindowsGuid(interfaceGuid);
  wchar_t* raw = nullptr;
  DWORD flags = 0;
  const DWORD error =
      ::WlanGetProfile(handle, &guid, reinterpret_cast<const wchar_t*>(name.c_str()), nullptr, &raw,
                       &flags, nullptr);
  const std::unique_ptr<wchar_t, FreeWlanMemory> text(raw);
  xml->clear();
  if (error == ERROR_SUCCESS && text) *xml = reinterpret_cast<const char16_t*>(text.get());
  return error;
}

}  // namespace platform
