// The wireless network's states and changes, seen from the firmware and in the change log.
#include "service/inventory/link_watch.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <thread>

#include "tests/service/inventory/report_test_base.h"

namespace stewardry {
namespace {

using platform::gate::FailEvery;
using platform::gate::FailNext;

constexpr platform::WlanNotification kConnected{8, 10};
constexpr platform::WlanNotification kDisconnected{8, 21};
constexpr std::uint32_t kWirelessAddress = 0x0700000A;  // kWireless' 10.0.0.7

class LinkWatchTest : public ReportTest {
 protected:
  std::string ChangeLog() { return FileText(kChangeLogPath); }

  // What the platform's thread gets to hear.
  static void Inject(const std::string& text) {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = platform::LabPath("wlan");
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::sendto(socket, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&address),
                       sizeof address),
              static_cast<ssize_t>(text.size()));
    ::close(socket);
  }
};

TEST_F(LinkWatchTest, InterfaceStateIsTakenForAnother) {
  Put("wlan.txt", "0\n2\n3\n4\n5\n6\n7\n8\n");
  EXPECT_EQ(WlanIsConnected(), 1U);
  EXPECT_EQ(ServiceMessages(),
            (std::vector<std::string>{
                "Num Entries: 8", "Current Index: 0", "Interface Index[0]", "Not ready",
                "Interface Index[1]", "First node in a ad hoc network", "Interface Index[2]",
                "Disconnecting", "Interface Index[3]", "Not connected", "Interface Index[4]",
                "Attempting to associate with a network", "Interface Index[5]",
                "Auto configuration is discovering settings for the network", "Interface Index[6]",
                "In process of authenticating", "Interface Index[7]", "Unknown state 8"}));
}

TEST_F(LinkWatchTest, OnlyTheFirstOrTheLastInterfaceCounts) {
  for (const char* states : {"1\n4\n", "4\n1\n", "4\n1\n4\n"}) {
    Put("wlan.txt", states);
    EXPECT_EQ(WlanIsConnected(), 0U) << states;
  }
  Put("wlan.txt", "");
  EXPECT_EQ(WlanIsConnected(), 1U) << "a service without interfaces";
}

TEST_F(LinkWatchTest, MissingWirelessServiceCountsAsConnected) {
  Put("adapters.txt", kEthernet);
  EXPECT_EQ(WlanIsConnected(), 1U);
  EXPECT_EQ(WlanRegisterWifiNotification(), 1U);
  EXPECT_EQ(ServiceMessages(),
            std::vector<std::string>(2, "WlanOpenHandle failed with error: 1062"));
  Put("wlan.txt", "1\n");
  FailNext("WlanEnumInterfaces", 31);
  EXPECT_EQ(WlanIsConnected(), 1U);
  FailNext("WlanRegisterNotification", 120);
  EXPECT_EQ(WlanRegisterWifiNotification(), 1U);
  EXPECT_TRUE(InOrder(ServiceMessages(), {"WlanEnumInterfaces failed with error: 31",
                                          "WlanRegisterNotification failed with error: 120"}));
  EXPECT_EQ(WlanIsConnected(), 0U) << "a failure isn't remembered";
}

TEST_F(LinkWatchTest, SeveralThreadsOpenSeveralHandles) {
  Put("wlan.txt", "1\n");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([] {
      for (int n = 0; n < 20; ++n) EXPECT_EQ(WlanIsConnected(), 0U);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(CountCalls("WlanOpenHandle"), 1U);
}

TEST_F(LinkWatchTest, NewAddressIsKeptFromTheFirmware) {
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  gIPInfo.Update([](IPInfo& record) {
    record.remoteAddress = 5;
    record.remotePort = 6;
  });
  WlanNotificationCallback(kConnected, nullptr);
  ASSERT_EQ(Sent(), (Codes{kWriteIp, kWriteNetwork}));
  const auto ip = Message<IPInfo>(0);
  EXPECT_EQ(ip.ipAddress, kWirelessAddress);
  EXPECT_EQ(ip.localPort, 623U);
  EXPECT_EQ(ip.remoteAddress, 0U);
  EXPECT_EQ(ip.remotePort, 0U);
  EXPECT_EQ(ip.endMarker, 0xFFFF);
  const auto network = Message<NetworkInfo>(1);
  EXPECT_EQ(TextOf(network.Name), u"eth0") << "the first connected adapter";
  EXPECT_EQ(network.endMarker, 0xFFFF);
  EXPECT_EQ(ChangeLog(),
            "ConnectedNetwrok Addrress 0x700000aSize of 36Getting value from "
            "GetNetworkinformationNetwork Name: eth0Network Speed: 1000000000");
}

TEST_F(LinkWatchTest, SameAddressIsToldAgain) {
  Put("adapters.txt", kWireless);
  WlanNotificationCallback(kConnected, nullptr);
  const std::size_t sent = Sent().size();
  WlanNotificationCallback(kConnected, nullptr);
  WlanNotificationCallback(kDisconnected, nullptr);
  EXPECT_EQ(Sent().size(), sent);
  const std::string log = ChangeLog();
  EXPECT_EQ(log.substr(log.rfind("54000000") + 8), "ConnectedDisconnected");
}

TEST_F(LinkWatchTest, LoopbackAddressIsToldTheFirmware) {
  Put("adapters.txt", kLoopbackOnly);
  WlanNotificationCallback(kConnected, nullptr);
  EXPECT_EQ(Sent(), Codes{kWriteNetwork});
  EXPECT_EQ(Message<NetworkInfo>(0).endMarker, 0xFFFF);
}

TEST_F(LinkWatchTest, OtherSourceOrCodeIsActedOn) {
  Put("adapters.txt", kWireless);
  for (const platform::WlanNotification data :
       {platform::WlanNotification{16, 10}, {0, 21}, {8, 9}, {8, 20}, {8, 0}})
    WlanNotificationCallback(data, nullptr);
  EXPECT_EQ(Sent(), Codes{});
  EXPECT_EQ(ChangeLog(), "");
}

TEST_F(LinkWatchTest, ChangeLogThatCannotBeOpenedStopsTheMessages) {
  Put("adapters.txt", kWireless);
  FailNext("_fsopen", 5);
  WlanNotificationCallback(kConnected, nullptr);
  EXPECT_EQ(Sent(), (Codes{kWriteIp, kWriteNetwork}));
  EXPECT_EQ(ChangeLog(), "");
}

TEST_F(LinkWatchTest, NotificationOfThePlatformIsLost) {
  Put("adapters.txt", kWireless);
  Put("wlan.txt", "1\n");
  ASSERT_EQ(WlanRegisterWifiNotification(), 0U);
  ASSERT_EQ(WlanRegisterWifiNotification(), 0U);
  Inject("disconnected");
  Inject("16 21");
  Inject("nonsense");
  Inject("");
  Inject("connected");
  EXPECT_TRUE(Eventually([this] { return Sent() == Codes{kWriteIp, kWriteNetwork}; }));
  EXPECT_EQ(ChangeLog().substr(0, 24), "DisconnectedConnectedNet");
  // The callback has returned once it has closed its log.
  EXPECT_TRUE(Eventually([] { return CountCalls("fclose") == 2; }));
}

// Every call that a change of the network makes fails once, each in a run of its own. The waits are
// left out: the logs take any end of theirs as their turn.
TEST_F(LinkWatchTest, OneFailedCallLeavesSomethingOpen) {
  Put("adapters.txt", kWireless);
  WlanNotificationCallback(kConnected, nullptr);
  std::map<std::string, std::uint64_t> calls;
  for (const std::string& entry : platform::gate::Trace())
    ++calls[entry.substr(0, entry.find('('))];
  calls.erase("WaitForSingleObject");
  ASSERT_GT(calls.size(), 20U) << "the whole event is in the trace";
  for (const auto& [call, count] : calls) {
    for (std::uint64_t n = 0; n < count; ++n) {
      gIPInfo.Store({});
      platform::gate::Arm();
      FailNext(call.c_str(), 31, n);
      WlanNotificationCallback(kConnected, nullptr);
      const bool opened = call != "CoInitializeEx" && CountCalls("CoInitializeEx") > 0;
      EXPECT_EQ(CountCalls("CoUninitialize"), opened ? 1U : 0U) << call << " " << n;
      EXPECT_EQ(CountCalls("HeapAlloc"), CountCalls("HeapFree") + (call == "HeapAlloc" ? 1 : 0))
          << call << " " << n;
      EXPECT_EQ(CountCalls("fclose"), call == "_fsopen" ? 0U : 1U) << call << " " << n;
    }
  }
}

TEST_F(LinkWatchTest, ConnectionWordIsMistaken) {
  const struct {
    const char* connected;
    const char* wlan;
    std::uint32_t word;
    std::vector<std::string> lines;
  } kCases[] = {
      {"2", "4\n", kNetworkLan, {"Connected to internet flag: 2", "Connected to internet via LAN"}},
      {"2",
       "1\n",
       kNetworkWlan,
       {"Connected to internet flag: 2", "Connected to internet via WLAN"}},
      {"18", "1\n", kNetworkWlan, {"Connected to internet flag: 18"}},
      {"1", "1\n", kNetworkNone, {"Not connected to internet via LAN/WLAN 1"}},
      {"66", "1\n", kNetworkNone, {"Not connected to internet via LAN/WLAN 66"}},
  };
  std::size_t sent = 0;
  for (const auto& testCase : kCases) {
    Put("connected.txt", testCase.connected);
    Put("wlan.txt", testCase.wlan);
    SendSystemBooted();
    EXPECT_EQ(Message<std::uint32_t>(sent++), testCase.word) << testCase.connected;
    EXPECT_TRUE(InOrder(ServiceMessages(), testCase.lines));
  }
  Put("connected.txt", "no");
  SendSystemBooted();
  EXPECT_EQ(Sent(), Codes(sent, kWriteBooted)) << "nothing goes out without a connection";
  EXPECT_EQ(ServiceMessages().back(), "InternetGetConnectedState failed");
}

}  // namespace
}  // namespace stewardry
