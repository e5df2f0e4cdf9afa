// The WLAN service's handle, notifications and states. Several threads may need the handle at once,
// and some of them can be ended from outside.
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
#include "service/inventory/reports.h"
#include "service/mailbox/messages.h"

namespace stewardry {

namespace {

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
static_assert(std::size(kStateTexts) == platform::kWlanStates);

// The turn to open the handle, so that threads that come at once open one. A platform mutex: a
// thread can be ended while it holds the turn, and a std::mutex would then stay locked.
class OpeningTurn {
 public:
  // Without the mutex the opening goes on: a second handle does less harm than a WLAN that is
  // reported as a LAN.
  OpeningTurn() {
    const std::uint32_t wait = platform::WaitForSingleObject(Turn(), platform::kInfinite);
    isTaken_ = wait == platform::kWaitObject0 || wait == platform::kWaitAbandoned;
  }
  ~OpeningTurn() {
    if (isTaken_) (void)platform::ReleaseMutex(Turn());  // a failure has no remedy
  }
  OpeningTurn(const OpeningTurn&) = delete;
  OpeningTurn& operator=(const OpeningTurn&) = delete;

 private:
  struct NewMutex {
    platform::Mutex mutex = platform::CreateMutexA(nullptr);
  };
  static const platform::Mutex& Turn() {
    static platform::ProcessLifetime<NewMutex> turn;  // a callback may run while the process exits
    return turn->mutex;
  }
  bool isTaken_ = false;
};

// Returns the open handle, or null after a logged failure. The next caller tries again.
platform::WlanHandle OpenWlan() {
  platform::WlanHandle handle = gReports->gWlanHandle.load(std::memory_order_acquire);
  if (handle != nullptr) return handle;
  OpeningTurn turn;
  handle = gReports->gWlanHandle.load(std::memory_order_acquire);
  if (handle != nullptr) return handle;
  if (const std::uint32_t error = platform::WlanOpenHandle(&handle); error != 0) {
    LogInfo("WlanOpenHandle failed with error: %u", error);
    return nullptr;
  }
  gReports->gWlanHandle.store(handle, std::memory_order_release);
  return handle;
}

// The trace, open for one event. If it cannot be opened its lines are lost, and the event is
// handled all the same.
class ChangeLog final : public ReportLines {
 public:
  ChangeLog() {
    if (gLogs->gLogFolderIsSafe.load(std::memory_order_relaxed))
      stream_ = platform::OpenStream(kChangeLogPath, "a+");
  }

 private:
  void WriteLine(std::string_view format, std::span<const FormatArg> args) override {
    if (!stream_) return;
    char text[512];  // the longest is a network name of 96 units, at three bytes each
    const std::size_t length = FormatText(text, sizeof text, format, args);
    (void)platform::WriteStream(stream_, text, length);  // a trace: what fails is lost
  }

  platform::Stream stream_;
};

void OnConnected() {
  ChangeLog log;
  log.Write("Connected");
  const std::uint32_t oldAddress = gReports->gIPInfo.Load().ipAddress;
  GetIPCompleteInfomartion(&gReports->gIPInfo, kReportPort, kWirelessAdapter);
  // Back on the same network: the firmware knows the address.
  if (gReports->gIPInfo.Load().ipAddress == oldAddress) return;
  SendIpReport(&log);
  SendAdapterReport(&log);
}

void OnDisconnected() { ChangeLog().Write("Disconnected"); }

std::uint32_t ConnectionWord(std::uint32_t flags) {
  if (flags != platform::kInternetConnectionLan &&
      flags != (platform::kInternetConnectionLan | platform::kInternetRasInstalled)) {
    LogInfo("Not connected to internet via LAN/WLAN %d", flags);
    return kNetworkNone;
  }
  LogInfo("Connected to internet flag: %d", flags);
  if (IsOnWlan()) {
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
  if (data.code == platform::kWlanConnectionComplete) OnConnected();
  if (data.code == platform::kWlanDisconnected) OnDisconnected();
}

bool IsOnWlan() {
  const platform::WlanHandle handle = OpenWlan();
  if (handle == nullptr) return false;
  platform::WlanInterfaceList list;
  if (const std::uint32_t error = platform::WlanEnumInterfaces(handle, &list); error != 0) {
    LogInfo("WlanEnumInterfaces failed with error: %u", error);
    return false;
  }
  LogInfo("Num Entries: %lu", list.states.size());
  LogInfo("Current Index: %lu", list.index);
  bool isConnected = false;
  for (std::uint32_t i = 0; i < list.states.size(); ++i) {
    LogInfo("Interface Index[%u]", i);
    LogInfo("%s", WlanStateText(list.states[i]));
    if (list.states[i] == platform::kWlanStateConnected) isConnected = true;
  }
  return isConnected;
}

std::uint32_t WlanIsConnected() { return IsOnWlan() ? 0 : 1; }

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
