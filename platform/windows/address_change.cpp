// Windows calls Notify, a callback of its own type, which calls the one callback of the process.
#include "platform/address_change.h"

#include <atomic>
#include <cassert>

#include "platform/windows/runtime/windows_api.h"
// This needs windows.h.
#include <iphlpapi.h>

namespace platform {

static_assert(kMibParameterNotification == MibParameterNotification &&
              kMibAddInstance == MibAddInstance && kMibDeleteInstance == MibDeleteInstance);

namespace {

// Written before the registration, read on a thread of Windows. Release and acquire, because
// Windows documents no order between the two.
std::atomic<IpChangeCallback> gCallback{nullptr};

void NETIOAPI_API_ Notify(void* context, MIB_IPINTERFACE_ROW* row, MIB_NOTIFICATION_TYPE type) {
  gCallback.load(std::memory_order_acquire)(context, row, static_cast<std::uint32_t>(type));
}

}  // namespace

std::uint32_t NotifyIpInterfaceChange(IpChangeCallback callback, void* context, RawHandle* handle) {
  assert(callback != nullptr && handle != nullptr);
  gCallback.store(callback, std::memory_order_release);
  return ::NotifyIpInterfaceChange(AF_INET, Notify, context, FALSE, handle);
}

std::uint32_t CancelMibChangeNotify2(RawHandle handle) { return ::CancelMibChangeNotify2(handle); }

}  // namespace platform
