// The watch on the host's addresses.
#include "service/standby/address_watch.h"

#include "platform/address_change.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/link_watch.h"
#include "service/mailbox/messages.h"

namespace stewardry {

std::atomic<platform::RawHandle> gIpChangeHandle{nullptr};
std::atomic<std::uint32_t> gLastReportedAddress{0};
std::atomic<std::uint32_t> gIpChangeEntry{0};

namespace {

// The host's configuration as it is now, in a record of the call's own. Without an adapter that
// fits it is zero.
IPInfo ReadAddress(std::uint32_t notificationType) {
  SharedRecord<IPInfo> record;
  GetIPCompleteInfomartion(&record, kReportPort, notificationType);
  return record.Load();
}

bool IsNews(std::uint32_t address) {
  return address != kLoopbackAddress &&
         address != gLastReportedAddress.load(std::memory_order_relaxed);
}

// A turn in the callback. The count goes back to 0 on every way out of the first one, also when its
// thread is ended: left high, it would keep the watch silent for good.
class Entry {
 public:
  Entry() : isFirst_(gIpChangeEntry.fetch_add(1, std::memory_order_acq_rel) == 0) {}
  ~Entry() {
    if (isFirst_) gIpChangeEntry.store(0, std::memory_order_release);
  }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;
  bool IsFirst() const { return isFirst_; }

 private:
  const bool isFirst_;
};

std::uint32_t GiveHandleBack(void*) {
  const platform::RawHandle handle = gIpChangeHandle.exchange(nullptr, std::memory_order_acq_rel);
  if (handle != nullptr && platform::CancelMibChangeNotify2(handle) == 0)
    LogInfo("CancelMibChangeNotify2 Passed");
  return 0;
}

}  // namespace

std::uint32_t RegisterNetworkEvent() {
  // A second handle would take the place of the first, which nobody could give back then.
  if (gIpChangeHandle.load(std::memory_order_acquire) != nullptr) return 0;
  platform::RawHandle handle = nullptr;
  if (platform::NotifyIpInterfaceChange(IpInterfaceChangeCallback, nullptr, &handle) != 0) return 0;
  gIpChangeHandle.store(handle, std::memory_order_release);
  LogInfo("Success RegisterNetworkEvent");
  return 1;
}

// The platform waits for a callback at work, which may be waiting for a firmware that never
// answers. So a thread of its own gives the handle back, and is left to itself when that takes too
// long.
void UnregisterNetworkEvent() {
  constexpr std::uint32_t kPatienceMs = 1000;
  if (gIpChangeHandle.load(std::memory_order_acquire) == nullptr) return;
  const platform::Thread thread = platform::CreateThread(GiveHandleBack, nullptr);
  if (!thread) return;  // the watch stays until the process ends
  (void)platform::WaitForSingleObject(thread, kPatienceMs);
}

void IpInterfaceChangeCallback(void* context, const void* row, std::uint32_t notificationType) {
  {
    const Entry entry;
    if (entry.IsFirst() && IsNews(ReadAddress(notificationType).ipAddress))
      ReportIpChange(context, row, notificationType);
  }
  LogInfo("Received");
}

void ReportIpChange(void*, const void*, std::uint32_t notificationType) {
  IPInfo record = ReadAddress(notificationType);
  record.remotePort = 0;
  record.remoteAddress = 0;
  record.endMarker = kEndMarker;
  if (!IsNews(record.ipAddress)) return;
  SendSystemBooted();
  SendIPCompleteInfomartion(&record);
  gLastReportedAddress.store(record.ipAddress, std::memory_order_relaxed);
  LogInfo("Ipchange received %x", record.ipAddress);
}

}  // namespace stewardry
