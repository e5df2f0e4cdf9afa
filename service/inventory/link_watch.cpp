// The WLAN service's handle, its notifications and its answers. The handle may be wanted by several
// threads at once, some of which can be ended from outside.
#include "service/inventory/link_watch.h"

#include <iterator>

#include "platform/event.h"
#include "platform/file.h"
#include "platform/mutex.h"
#include "platform/network.h"
#include "service/diagnostics/log_file.h"
#include "service/diagnostics/service_log.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/network_report.h"
#include "service/mailbox/messages.h"

namespace stewardry {

std::atomic<platform::WlanHandle> gWlanHandle{nullptr};

namespace {

constexpr std::uint32_t kConnectionComplete = 10;  // wlan_notification_acm_connection_complete
constexpr std::uint32_t kDisconnected = 21;        // wlan_notification_acm_disconnected
constexpr std::uint32_t kStateConnected = 1;       // wlan_interface_state_connected

// WLAN_INTERFACE_STATE, in its order.
constexpr const char* kStateTexts[] = {
    "Not ready",
    "Connected",
    "First node in a ad hoc network",
    "Disconnecting",
    "Not connected",
    "Attempting to associate with a network",
    "Auto configuration is discovering settings for the network",
    "In process of authenticating",
};
static_assert(std::size(kStateTexts) == 8);

// InternetGetConnectedState: INTERNET_CONNECTION_LAN, and the same with INTERNET_RAS_INSTALLED.
constexpr std::uint32_t kFlagsLan = 0x02;
constexpr std::uint32_t kFlagsLanRas = 0x12;

// The turn to open the handle. A platform mutex, because a report's thread can be ended from
// outside while it holds it, and a std::mutex would then stay locked for good.
class OpeningTurn {
 public:
  // If the mutex couldn't be made or taken, the opening goes on without it: better a handle too
  // many than a host that takes its WLAN for a LAN.
  OpeningTurn() {
    const std::uint32_t wait = platform::WaitForSingleObject(Turn(), platform::kInfinite);
    taken_ = wait == platform::kWaitObject0 || wait == platform::kWaitAbandoned;
  }
  ~OpeningTurn() {
    if (taken_) (void)platform::ReleaseMutex(Turn());  // nobody to tell of a failure
  }
  OpeningTurn(const OpeningTurn&) = delete;
  OpeningTurn& operator=(const OpeningTurn&) = delete;

 private:
  struct Made {
    platform::Mutex mutex = platform::CreateMutexA(nullptr);
  };
  static const platform::Mutex& Turn() {
    static platform::ProcessLifetime<Made> turn;  // a callback may come while the process leaves
    return turn->mutex;
  }
  bool taken_ = false;
};

// The open handle, or null after a logged failure. The next caller tries again.
platform::WlanHandle OpenWlan() {
  platform::WlanHandle handle = gWlanHandle.load(std::memory_order_acquire);
  if (handle != nullptr) return handle;
  OpeningTurn turn;
  handle = gWlanHandle.load(std::memory_order_acquire);
  if (handle != nullptr) return handle;
  if (const std::uint32_t error = platform::WlanOpenHandle(&handle); error != 0) {
    LogInfo("WlanOpenHandle failed with error: %u", error);
    return nullptr;
  }
  gWlanHandle.store(handle, std::memory_order_release);
  return handle;
}

// Open for one event. A log that can't be opened takes nothing, and the event is dealt with all
// the same.
class ChangeLog final : public ReportLines {
 public:
  ChangeLog() {
    if (gLogs->gLogFolderIsSafe.load(std::memory_order_relaxed))
      stream_ = platform::OpenStream(kChangeLogPath, "a+");
  }

 private:
  void Take(std::string_view format, std::span<const FormatArg> args) override {
    if (!stream_) return;
    char text[512];  // the longest is a network name of 96 units, at three bytes each
    const std::size_t length = FormatText(text, sizeof text, format, args);
    // A trace for engineers: what the disk doesn't take is lost.
    (void)platform::WriteStream(stream_, text, length);
  }

  platform::Stream stream_;
};

void OnConnected() {
  ChangeLog log;
  log.Write("Connected");
  const std::uint32_t oldAddress = gIPInfo.Load().ipAddress;
  GetIPCompleteInfomartion(&gIPInfo, kReportPort, kWirelessAdapter);
  // Back on the same network: the firmware knows it.
  if (gIPInfo.Load().ipAddress == oldAddress) return;
  SendIpReport(&log);
  SendAdapterReport(&log);
}

void OnDisconnected() { ChangeLog().Write("Disconnected"); }

std::uint32_t ConnectionWord(std::uint32_t flags) {
  if (flags != kFlagsLan && flags != kFlagsLanRas) {
    LogInfo("Not connected to internet via LAN/WLAN %d", flags);
    return kNetworkNone;
  }
  LogInfo("Connected to internet flag: %d", flags);
  if (WlanIsConnected() == 0) {
    LogInfo("Connected to internet via WLAN");
    return kNetworkWlan;
  }
  LogInfo("Connected to internet via LAN");
  return kNetworkLan;
}

}  // namespace

std::uint32_t WlanRegisterWifiNotification() {
  const platform::WlanHandle handle = OpenWlan();
  if (handle == nullptr) return 1;
  const std::uint32_t error = platform::WlanRegisterNotification(
      handle, platform::kWlanNotificationSourceAcm, WlanNotificationCallback, nullptr);
  if (error == 0) return 0;
  LogInfo("WlanRegisterNotification failed with error: %u", error);
  return 1;
}

void WlanNotificationCallback(const platform::WlanNotification& data, void*) {
  if (data.source != platform::kWlanNotificationSourceAcm) return;
  if (data.code == kConnectionComplete) OnConnected();
  if (data.code == kDisconnected) OnDisconnected();
}

std::uint32_t WlanIsConnected() {
  const platform::WlanHandle handle = OpenWlan();
  if (handle == nullptr) return 1;
  platform::WlanInterfaceList list;
  if (const std::uint32_t error = platform::WlanEnumInterfaces(handle, &list); error != 0) {
    LogInfo("WlanEnumInterfaces failed with error: %u", error);
    return 1;
  }
  LogInfo("Num Entries: %lu", list.states.size());
  LogInfo("Current Index: %lu", list.index);
  std::uint32_t result = 1;
  for (std::uint32_t i = 0; i < list.states.size(); ++i) {
    LogInfo("Interface Index[%u]", i);
    LogInfo("%s", WlanStateText(list.states[i]));
    if (list.states[i] == kStateConnected) result = 0;
  }
  return result;
}

std::string WlanStateText(std::uint32_t state) {
  if (state < std::size(kStateTexts)) return kStateTexts[state];
  char text[32];
  FormatTo(text, sizeof text, "Unknown state %ld", state);
  return text;
}

void SendSystemBooted() {
  std::uint32_t flags = 0;
  if (!platform::InternetGetConnectedState(&flags))
    return LogInfo("InternetGetConnectedState failed");
  SendNetworkStatus(ConnectionWord(flags));
}

}  // namespace stewardry
