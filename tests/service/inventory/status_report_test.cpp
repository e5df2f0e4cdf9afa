// The status report as it reaches the firmware, and its lines. One case waits for ten seconds,
// because the report does.
#include "service/inventory/status_report.h"

#include <gtest/gtest.h>

#include "platform/socket.h"
#include "platform/thread.h"
#include "tests/service/inventory/report_test_base.h"

namespace stewardry {
namespace {

using platform::gate::FailEvery;
using platform::gate::FailNext;

class StatusReportTest : public ReportTest {
 protected:
  void SetUp() override {
    ReportTest::SetUp();
    ASSERT_EQ(platform::WSAStartup(), 0);
    Put("adapters.txt", kEthernet);
    Put("connected.txt", "2");
    gTavrinRunning.store(0);
  }
  void TearDown() override {
    platform::WSACleanup();
    ReportTest::TearDown();
  }
  std::string VersionText() { return TextOf(gTavrinVersionInfo.Load().version); }
};

TEST_F(StatusReportTest, MessagesComeInAnotherOrder) {
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  ASSERT_EQ(Sent(),
            (Codes{kWriteStatus, kWriteOs, kReadVersion, kWriteIp, kWriteBooted, kWriteNetwork}));
  EXPECT_EQ(Message<std::uint32_t>(0), kServiceUp);
  const auto system = Message<OperationSysSInfo>(1);
  char host[256] = {};
  ASSERT_EQ(platform::gethostname(host, sizeof host), 0);
  EXPECT_EQ(TextOf(system.hostName), host);
  EXPECT_EQ(TextOf(system.tavrinVersion), "1.0.0.533");
  EXPECT_EQ(system.endMarker, 0xFFFF);
  EXPECT_EQ(system.OSType, 36);
  const auto ip = Message<IPInfo>(3);
  EXPECT_EQ(ip.ipAddress, 0x0501A8C0U);
  EXPECT_EQ(ip.localPort, 623U);
  EXPECT_EQ(ip.endMarker, 0xFFFF);
  EXPECT_EQ(Message<std::uint32_t>(4), kNetworkLan);
  const auto network = Message<NetworkInfo>(5);
  EXPECT_EQ(TextOf(network.Name), u"eth0");
  EXPECT_EQ(network.Speed, 1000000000U);
  EXPECT_EQ(network.endMarker, 0xFFFF);
  EXPECT_EQ(VersionText(), "7.1");
  EXPECT_EQ(gTavrinRunning.load(), 1U);
  EXPECT_EQ(CountCalls("Sleep"), 1U) << "one turn of the wait on a host that is online";
}

TEST_F(StatusReportTest, LinesOfTheReportDiffer) {
  FailNext("GetComputerNameExA", 5);
  FailNext("gethostname", 5);
  FailNext("CoInitializeEx", 0x80041001);
  ResendSystemInfo();
  EXPECT_TRUE(InOrder(
      ServiceMessages(),
      {"ORRIN is down pass nonDASH commands", "Setting value to WriteTavrinStatus",
       "OS Name: ; OS Version: ; OS DomainName: N/A;OS Hostname: ;OS Tavrin Version: 1.0.0.533",
       "System is connected to LAN", "Getting value from GetIPCompleteInfomartion",
       "Netwrok Addrress 0x501a8c0", "Size of 36", "Connected to internet flag: 2",
       "Connected to internet via LAN", "Getting value from GetNetworkinformation",
       "Network Name: eth0", "Network Speed: 1000000000"}));
  const auto system = Message<OperationSysSInfo>(1);
  EXPECT_EQ(TextOf(system.Caption), u"");
  EXPECT_EQ(TextOf(system.domainName), "N/A");
  EXPECT_EQ(TextOf(system.tavrinVersion), "1.0.0.533");
  EXPECT_EQ(system.endMarker, 0xFFFF);
}

TEST_F(StatusReportTest, DomainIsNotTold) {
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  const auto system = Message<OperationSysSInfo>(1);
  EXPECT_TRUE(InOrder(ServiceMessages(), {"DNS domain: " + TextOf(system.domainName)}));
  EXPECT_NE(TextOf(system.domainName), "N/A");
}

TEST_F(StatusReportTest, WirelessHostIsTakenForAWiredOne) {
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  Put("wlan.txt", "1\n");
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  EXPECT_EQ(Message<IPInfo>(3).ipAddress, 0x0700000AU);
  EXPECT_EQ(Message<std::uint32_t>(4), kNetworkWlan);
  EXPECT_TRUE(InOrder(ServiceMessages(), {"System is connected to WLAN"}));
}

TEST_F(StatusReportTest, LoopbackAddressIsToldOrStopsTheRest) {
  Put("adapters.txt", kLoopbackOnly);
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  EXPECT_EQ(Sent(), (Codes{kWriteStatus, kWriteOs, kReadVersion, kWriteBooted, kWriteNetwork}));
}

TEST_F(StatusReportTest, EmptyVersionCountsAsAFirmwareThatRuns) {
  StartFirmware("");
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  EXPECT_EQ(VersionText(), kVersionNotAvailable);
  EXPECT_EQ(gTavrinRunning.load(), 0U);
}

TEST_F(StatusReportTest, FailureOfOneStepStopsTheNext) {
  const char* kCalls[] = {"CoInitializeEx",       "GetComputerNameExA", "gethostname",
                          "WlanOpenHandle",       "GetIfTable",         "GetAdaptersInfo",
                          "GetAdaptersAddresses", "HeapAlloc"};
  for (const char* call : kCalls) {
    const std::size_t before = Sent().size();
    platform::gate::Arm();
    FailEvery(call, 31);
    EXPECT_EQ(SendSystemInfo(nullptr), 0U) << call;
    EXPECT_EQ(Sent().size() - before, 6U) << call;
  }
}

TEST_F(StatusReportTest, ReportWithoutADeviceFails) {
  CloseOrrinDevice();
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  EXPECT_EQ(Sent(), Codes{});
}

TEST_F(StatusReportTest, LongWaitIsToldNeverOrTwice) {
  Put("connected.txt", "no");
  const platform::Thread report = platform::CreateThread(SendSystemInfo, nullptr);
  ASSERT_TRUE(report);
  ASSERT_TRUE(Eventually([] { return CountCalls("InternetGetConnectedState") > 103; }));
  EXPECT_EQ(Sent(), (Codes{kWriteStatus, kWriteOs, kReadVersion, kWriteNetwork}));
  EXPECT_EQ(firmware_->Requests().back().input, std::string(384, '\0'));
  Put("connected.txt", "2");
  EXPECT_EQ(platform::WaitForSingleObject(report, 60000), platform::kWaitObject0);
  EXPECT_EQ(Sent(), (Codes{kWriteStatus, kWriteOs, kReadVersion, kWriteNetwork, kWriteIp,
                           kWriteBooted, kWriteNetwork}));
}

TEST_F(StatusReportTest, WaitCannotBeEnded) {
  Put("connected.txt", "no");
  const platform::Thread report = platform::CreateThread(SendSystemInfo, nullptr);
  ASSERT_TRUE(Eventually([] { return CountCalls("InternetGetConnectedState") > 0; }));
  EXPECT_TRUE(platform::TerminateThread(report, 9));
  std::uint32_t exitCode = 0;
  EXPECT_TRUE(platform::GetExitCodeThread(report, &exitCode));
  EXPECT_EQ(exitCode, 9U);
  EXPECT_EQ(CountCalls("CoInitializeEx"), CountCalls("CoUninitialize"));
}

}  // namespace
}  // namespace stewardry
