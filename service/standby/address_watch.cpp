#include "service/standby/address_watch.h"

#include "platform/address_change.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/link_watch.h"
#include "service/mailbox/messages.h"
#include "service/standby/standby_state.h"

namespace stewardry {

platform::ProcessLifetime<StandbyState> gStandby;

namespace {

// Returns the host's current configuration, zero without an adapter that fits. gIPInfo is not
// changed.
IPInfo ReadAddress(std::uint32_t notificationType) {
  SharedRecord<IPInfo> record;
  GetIPCompleteInfomartion(&record, kReportPort, notificationType);
  return record.Load();
}

bool IsNewAddress(std::uint32_t address) {
  return address != kLoopbackAddress &&
         address != gStandby->gLastReportedAddress.load(std::memory_order_relaxed);
}

// One entry of the callback. The first one resets the count on every way out, also when its thread
// is ended: a count left high would silence the watch for ever.
class Entry {
 public:
  Entry() : isFirst_(gStandby->gIpChangeEntry.fetch_add(1, std::memory_order_acq_rel) == 0) {}
  ~Entry() {
    if (isFirst_) gStandby->gIpChangeEntry.store(0, std::memory_order_release);
  }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;
  bool IsFirst() const { return isFirst_; }

 private:
  const bool isFirst_;
};

std::uint32_t CloseWatchHandle(void*) {
  const platform::RawHandle handle =
      gStandby->gIpChangeHandle.exchange(nullptr, std::memory_order_acq_rel);
  if (handle != nullptr && platform::CancelMibChangeNotify2(handle) == 0)
    LogInfo("CancelMibChangeNotify2 Passed");
  return 0;
}

// Refuses a second watch: its handle would replace the first one, which could never be closed then.
bool WatchAddresses() {
  if (gStandby->gIpChangeHandle.load(std::memory_order_acquire) != nullptr) return false;
  platform::RawHandle handle = nullptr;
  if (platform::NotifyIpInterfaceChange(IpInterfaceChangeCallback, nullptr, &handle) != 0)
    return false;
  gStandby->gIpChangeHandle.store(handle, std::memory_order_release);
  LogInfo("Success RegisterNetworkEvent");
  return true;
}

}  // namespace

std::uint32_t RegisterNetworkEvent() { return WatchAddresses() ? 1 : 0; }

// The platform's close waits for a callback at work, which may wait for a firmware that never
// answers. So a thread of its own closes the handle, and is left behind if that takes too long.
void UnregisterNetworkEvent() {
  constexpr std::uint32_t kPatienceMs = 1000;
  if (gStandby->gIpChangeHandle.load(std::memory_order_acquire) == nullptr) return;
  const platform::Thread thread = platform::CreateThread(CloseWatchHandle, nullptr);
  if (!thread) return;  // the watch stays until the process ends
  (void)platform::WaitForSingleObject(thread, kPatienceMs);
}

void IpInterfaceChangeCallback(void* context, const void* row, std::uint32_t notificationType) {
  {
    const Entry entry;
    if (entry.IsFirst() && IsNewAddress(ReadAddress(notificationType).ipAddress))
      ReportIpChange(context, row, notificationType);
  }
  LogInfo("Received");
}

void ReportIpChange(void*, const void*, std::uint32_t notificationType) {
  IPInfo record = ReadAddress(notificationType);
  record.remotePort = 0;
  record.remoteAddress = 0;
  record.endMarker = kEndMarker;
  if (!IsNewAddress(record.ipAddress)) return;
  SendSystemBooted();
  SendIPCompleteInfomartion(&record);
  gStandby->gLastReportedAddress.store(record.ipAddress, std::memory_order_relaxed);
  LogInfo("Ipchange received %x", record.ipAddress);
}

}  // namespace stewardry
