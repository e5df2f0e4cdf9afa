#include "service/inventory/status_report.h"

#include <gtest/gtest.h>

#include "platform/socket.h"
#include "platform/thread.h"
#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {
namespace {

class StatusReportTest : public ReportTest {
 protected:
  void SetUp() override {
    ReportTest::SetUp();
    Put("adapters.txt", kEthernet);
    Put("connected.txt", "2");
  }
};

TEST_F(StatusReportTest, MessagesAreSentInTheirOrder) {
  const bool named = EnterOwnHostNames("host", "lab.example");  // where this user may
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  ASSERT_EQ(Sent(),
            (Codes{kWriteStatus, kWriteOs, kReadVersion, kWriteIp, kWriteBooted, kWriteNetwork}));
  EXPECT_EQ(Message<std::uint32_t>(0), kServiceUp);
  const auto system = Message<OperationSysSInfo>(1);
  char host[256] = {};
  ASSERT_EQ(platform::gethostname(host, sizeof host), 0);
  EXPECT_EQ(TextOf(system.hostName), host);
  EXPECT_TRUE(!named || Logged("DNS domain: " + TextOf(system.domainName)));
  EXPECT_TRUE(!named || TextOf(system.domainName) == "lab.example");
  EXPECT_EQ(system.endMarker, 0xFFFF);
  EXPECT_EQ(Message<IPInfo>(3).ipAddress, kEthernetAddress);
  EXPECT_EQ(Message<std::uint32_t>(4), kNetworkLan);
  const auto network = Message<NetworkInfo>(5);
  EXPECT_EQ(TextOf(network.Name), u"eth0");
  EXPECT_EQ(network.endMarker, 0xFFFF);
  EXPECT_EQ(TextOf(gMailboxLink->gTavrinVersionInfo.Load().version), "7.1");
  EXPECT_EQ(gReports->gTavrinRunning.load(), 1U);
  EXPECT_EQ(CountCalls("Sleep"), 1U) << "one turn of the wait on a connected host";

  Put("wlan.txt", "1\n");
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  EXPECT_EQ(Message<IPInfo>(9).ipAddress, kWirelessAddress);
  EXPECT_TRUE(Logged("System is connected to WLAN"));
  Put("adapters.txt", kLoopbackOnly);
  EXPECT_EQ(SendSystemInfo(nullptr), 0U);
  EXPECT_EQ(Sent().size(), 6U + 6U + 5U) << "a loopback address is not sent";
}

TEST_F(StatusReportTest, ReportWithoutFactsSendsAndLogsTheRest) {
  for (const char* call : {"GetComputerNameExA", "gethostname", "CoInitializeEx"})
    gate::FailNext(call, 5);
  firmware_->SetVerdict(kReadVersion, 31);
  ResendSystemInfo();
  EXPECT_TRUE(InOrder(
      ServiceMessages(),
      {"ORRIN is down pass nonDASH commands", "Setting value to WriteTavrinStatus",
       "OS Name: ; OS Version: ; OS DomainName: N/A;OS Hostname: ;OS Tavrin Version: 1.0.0.533",
       "System is connected to LAN", "Getting value from GetIPCompleteInfomartion",
       "Netwrok Addrress 0x501a8c0", "Connected to internet via LAN",
       "Getting value from GetNetworkinformation", "Network Speed: 1000000000"}));
  EXPECT_EQ(TextOf(Message<OperationSysSInfo>(1).domainName), "N/A");
  EXPECT_EQ(TextOf(gMailboxLink->gTavrinVersionInfo.Load().version), kVersionNotAvailable);
  EXPECT_EQ(gReports->gTavrinRunning.load(), 0U);
}

TEST_F(StatusReportTest, HundredthTurnWithoutANetworkIsReportedOnce) {
  Put("connected.txt", "no");
  gate::FailEvery("Sleep(100)", gate::kFinishAtOnce);
  platform::Thread report = platform::CreateThread(SendSystemInfo, nullptr);
  ASSERT_TRUE(Eventually([] { return CountCalls("InternetGetConnectedState") > 203; }));
  EXPECT_EQ(Sent(), (Codes{kWriteStatus, kWriteOs, kReadVersion, kWriteNetwork}));
  EXPECT_EQ(firmware_->Requests().back().input, std::string(384, '\0'));
  Put("connected.txt", "2");
  EXPECT_EQ(platform::WaitForSingleObject(report, 60'000), platform::kWaitObject0);
  EXPECT_EQ(Sent(), (Codes{kWriteStatus, kWriteOs, kReadVersion, kWriteNetwork, kWriteIp,
                           kWriteBooted, kWriteNetwork}));
  // A thread that is ended in its wait for a network ends COM.
  Put("connected.txt", "no");
  gate::Arm();
  report = platform::CreateThread(SendSystemInfo, nullptr);
  ASSERT_TRUE(Eventually([] { return CountCalls("Sleep") > 0; }));
  EndThread(&report);
  EXPECT_EQ(CountCalls("CoInitializeEx"), CountCalls("CoUninitialize"));
}

}  // namespace
}  // namespace stewardry
