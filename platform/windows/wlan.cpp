// The wireless service. Windows wants a callback of its own type, so it calls Notify here, which
// passes on to the one callback of this process.
#include "platform/wlan.h"

#include <atomic>
#include <memory>

#include "platform/windows/windows_api.h"
// This needs windows.h.
#include <wlanapi.h>

namespace platform {

static_assert(kWlanNotificationSourceAcm == WLAN_NOTIFICATION_SOURCE_ACM);

namespace {

struct FreeWlanMemory {
  void operator()(void* block) const { ::WlanFreeMemory(block); }
};

// Written before the registration, read on a thread of Windows': release and acquire, since how
// Windows orders the two is not ours to know.
std::atomic<WlanCallback> gCallback{nullptr};

void WINAPI Notify(WLAN_NOTIFICATION_DATA* data, void* context) {
  const WlanNotification notification{data->NotificationSource, data->NotificationCode};
  gCallback.load(std::memory_order_acquire)(notification, context);
}

}  // namespace

std::uint32_t WlanOpenHandle(WlanHandle* handle) {
  DWORD negotiated = 0;
  return ::WlanOpenHandle(2, nullptr, &negotiated, handle);
}

std::uint32_t WlanRegisterNotification(WlanHandle handle, std::uint32_t source,
                                       WlanCallback callback, void* context) {
  gCallback.store(callback, std::memory_order_release);
  return ::WlanRegisterNotification(handle, source, TRUE, Notify, context, nullptr, nullptr);
}

std::uint32_t WlanEnumInterfaces(WlanHandle handle, WlanInterfaceList* list) {
  WLAN_INTERFACE_INFO_LIST* raw = nullptr;
  const DWORD error = ::WlanEnumInterfaces(handle, nullptr, &raw);
  const std::unique_ptr<WLAN_INTERFACE_INFO_LIST, FreeWlanMemory> found(raw);
  if (error != ERROR_SUCCESS) return error;
  list->index = found->dwIndex;
  list->states.clear();
  for (DWORD i = 0; i < found->dwNumberOfItems; ++i)
    list->states.push_back(static_cast<std::uint32_t>(found->InterfaceInfo[i].isState));
  return error;
}

}  // namespace platform
