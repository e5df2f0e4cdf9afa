#include "service/inventory/link_watch.h"

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {
namespace {

constexpr platform::WlanNotification kConnected{8, 10};
constexpr platform::WlanNotification kDisconnected{8, 21};

class LinkWatchTest : public ReportTest {
 protected:
  std::string ChangeLog() { return FileText(kChangeLogPath); }
  void Inject(const std::string& text) { SendDatagram(lab() + "/wlan", text); }
};

TEST_F(LinkWatchTest, AnyConnectedInterfaceCounts) {
  using Row = std::tuple<const char*, std::uint32_t>;
  for (const auto& [states, result] :
       {Row{"1\n4\n", 0}, Row{"4\n1\n4\n", 0}, Row{"", 1}, Row{"0\n2\n3\n5\n", 1}}) {
    Put("wlan.txt", states);
    EXPECT_EQ(WlanIsConnected(), result) << states;
  }
  EXPECT_TRUE(Messages().ends_with("[3]\nAttempting to associate with a network\n"));
}

TEST_F(LinkWatchTest, FailureCountsAsNotConnectedAndIsRetried) {
  Put("adapters.txt", kEthernet);
  EXPECT_EQ(WlanIsConnected(), 1U);
  EXPECT_EQ(WlanRegisterWifiNotification(), 1U);
  Put("wlan.txt", "1\n");
  gate::FailNext("WlanEnumInterfaces", 31);
  EXPECT_EQ(WlanIsConnected(), 1U);
  gate::FailNext("WlanRegisterNotification", 120);
  EXPECT_EQ(WlanRegisterWifiNotification(), 1U);
  EXPECT_EQ(ServiceMessages(), (Lines{"WlanOpenHandle failed with error: 1062",
                                      "WlanOpenHandle failed with error: 1062",
                                      "WlanEnumInterfaces failed with error: 31",
                                      "WlanRegisterNotification failed with error: 120"}));
  EXPECT_EQ(WlanIsConnected(), 0U);
}

TEST_F(LinkWatchTest, ThreadsShareOneHandle) {
  Put("wlan.txt", "1\n");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([] {
      for (int n = 0; n < 20; ++n) EXPECT_EQ(WlanIsConnected(), 0U);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(CountCalls("WlanOpenHandle"), 1U);
}

TEST_F(LinkWatchTest, NewAddressIsReportedOnce) {
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  gReports->gIPInfo.Update([](IPInfo& record) { record.remoteAddress = record.remotePort = 5; });
  for (const auto& data : {kConnected, kConnected, kDisconnected})
    WlanNotificationCallback(data, nullptr);
  ASSERT_EQ(Sent(), (Codes{kWriteIp, kWriteNetwork}));
  const auto ip = Message<IPInfo>(0);
  EXPECT_EQ(ip.ipAddress, kWirelessAddress);
  EXPECT_EQ(ip.remoteAddress + ip.remotePort, 0U);
  EXPECT_EQ(ip.endMarker, 0xFFFF);
  EXPECT_EQ(TextOf(Message<NetworkInfo>(1).Name), u"eth0") << "the first connected adapter";
  EXPECT_EQ(ChangeLog(),
            "ConnectedNetwrok Addrress 0x700000aSize of 36Getting value from "
            "GetNetworkinformationNetwork Name: eth0Network Speed: 1000000000"
            "ConnectedDisconnected");
}

TEST_F(LinkWatchTest, RegisteredNotificationsArrive) {
  Put("adapters.txt", kWireless);
  Put("wlan.txt", "1\n");
  ASSERT_EQ(WlanRegisterWifiNotification(), 0U);
  ASSERT_EQ(WlanRegisterWifiNotification(), 0U);
  for (const char* text : {"disconnected", "16 21", "0 10", "8 9", "8 20", "what", "", "connected"})
    Inject(text);
  // The callback has returned once it has closed its log.
  EXPECT_TRUE(Eventually([] { return CountCalls("fclose") == 2; }));
  EXPECT_EQ(Sent(), (Codes{kWriteIp, kWriteNetwork}));
  EXPECT_EQ(ChangeLog().substr(0, 24), "DisconnectedConnectedNet");
}

// Every call that a change of the network makes fails once, each in a run of its own.
TEST_F(LinkWatchTest, FailedCallLeavesNothingOpen) {
  Put("adapters.txt", kWireless);
  gate::FailNth(1000, 31);
  WlanNotificationCallback(kConnected, nullptr);
  const std::uint64_t calls = gate::Calls();
  ASSERT_GT(calls, 20U);
  for (std::uint64_t n = 1; n <= calls; ++n) {
    gReports->gIPInfo.Store({});
    gate::Arm();
    gate::FailNth(n, 31);
    WlanNotificationCallback(kConnected, nullptr);
    const std::string hit = gate::Hit();
    const std::size_t entered = CountCalls("CoInitializeEx") - hit.starts_with("CoInitializeEx");
    EXPECT_EQ(CountCalls("CoUninitialize"), entered) << hit;
    EXPECT_EQ(CountCalls("HeapAlloc"), CountCalls("HeapFree") + hit.starts_with("HeapAlloc"))
        << hit;
    EXPECT_EQ(CountCalls("fclose"), hit.starts_with("_fsopen") ? 0U : 1U) << hit;
  }
}

TEST_F(LinkWatchTest, ConnectionWordSaysLanOrWlan) {
  Codes sent;
  using Row = std::tuple<const char*, const char*, std::uint32_t, const char*>;
  for (const auto& [connected, wlan, word, line] :
       {Row{"2", "4\n", kNetworkLan, "Connected to internet via LAN"},
        Row{"2", "1\n", kNetworkWlan, "Connected to internet via WLAN"},
        Row{"18", "1\n", kNetworkWlan, "Connected to internet flag: 18"},
        Row{"66", "1\n", kNetworkNone, "Not connected to internet via LAN/WLAN 66"}}) {
    Put("connected.txt", connected);
    Put("wlan.txt", wlan);
    SendSystemBooted();
    EXPECT_EQ(Message<std::uint32_t>(sent.size()), word) << line;
    EXPECT_TRUE(Logged(line)) << line;
    sent.push_back(kWriteBooted);
  }
  Put("connected.txt", "no");
  SendSystemBooted();
  EXPECT_EQ(Sent(), sent) << "a host without a connection sends nothing";
  EXPECT_EQ(ServiceMessages().back(), "InternetGetConnectedState failed");
}

}  // namespace
}  // namespace stewardry
