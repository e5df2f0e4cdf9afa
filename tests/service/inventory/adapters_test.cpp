// The adapter's record, the way through WMI with each of its failures, and the other two readers of
// WMI: operating system and chassis.
#include "service/inventory/adapters.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/error.h"
#include "service/inventory/chassis.h"
#include "service/inventory/status_report.h"
#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {
namespace {

using platform::gate::FailEvery;
using platform::gate::FailNext;

class AdaptersTest : public InventoryTest {
 protected:
  NetworkInfo record_{};
};

TEST_F(AdaptersTest, ConnectedAdapterIsToldWrong) {
  Put("adapters.txt", kEthernet);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(TextOf(record_.Name), u"eth0");
  EXPECT_EQ(record_.Speed, 1000000000U);
  EXPECT_EQ(TextOf(record_.MACAddress), u"02:00:00:00:00:01");
  EXPECT_EQ(TextOf(record_.DeviceID), u"3");
  EXPECT_EQ(record_.StatusInfo, 3);
  EXPECT_EQ(record_.endMarker, 0) << "the sender's";
  EXPECT_EQ(record_.addressOrigin, kAddressOriginStatic);
  EXPECT_EQ(WmiMessages(), (std::vector<std::string>{
                               "Connected to ROOT\\CIMV2 WMI namespace", "Status info: 3",
                               "MAC info: 02:00:00:00:00:01,34", "Device ID: 3",
                               "Network name: eth0,8", "\tDescription:\teth0",
                               "\tindex: 3, Speed:\t 1000000000", "\tAdapter Description: \teth0",
                               "Address Origin: Static", "Speed: 1000000000", "closed here"}));
}

TEST_F(AdaptersTest, AnotherAdapterThanTheFirstConnectedOneIsTaken) {
  Put("adapters.txt", std::string("eth9 index=1 down\n") + kWireless + kEthernet);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(TextOf(record_.Name), u"eth0");
  Put("adapters.txt", std::string("eth9 index=1 down\n") + kWireless);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(TextOf(record_.Name), u"wlan0");
  EXPECT_EQ(record_.addressOrigin, kAddressOriginDhcp);
}

TEST_F(AdaptersTest, NoConnectedAdapterFailsOrChangesTheRecord) {
  Put("adapters.txt", std::string("eth0 down\n") + kLoopbackOnly);
  std::memset(&record_, 0x5A, sizeof record_);
  const NetworkInfo before = record_;
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(std::memcmp(&record_, &before, sizeof before), 0);
  EXPECT_TRUE(InOrder(WmiMessages(), {"closed here"}));
}

TEST_F(AdaptersTest, LongNameIsSearchedCutOrWrittenPastItsField) {
  const std::string name(120, 'n');
  Put("adapters.txt", name + " speed=7 dynamic\n");
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(TextOf(record_.Name), std::u16string(96, u'n'));
  EXPECT_EQ(record_.Speed, 7U) << "found by the whole name, and not overwritten by it";
  EXPECT_EQ(record_.addressOrigin, kAddressOriginDhcp);
  EXPECT_TRUE(InOrder(WmiMessages(), {"Network name: " + name + ",192"}));
}

TEST_F(AdaptersTest, SearchEndsAtARowWithoutSpeed) {
  Put("adapters.txt", "eth0 speed=0\neth1 speed=5\neth0 speed=9\neth0 speed=11\n");
  EXPECT_EQ(GetAdapterSpeed("eth0"), 9U);
  EXPECT_EQ(GetAdapterSpeed("eth"), 0U) << "only the whole name counts";
}

TEST_F(AdaptersTest, FailedLookupGivesAnotherAnswerThanItsOwn) {
  Put("adapters.txt", "eth0 speed=9 dynamic\n");
  const struct {
    const char* call;
    std::uint64_t skip;
    std::uint32_t error;
    std::uint64_t speed;
    bool dhcp;
    const char* line;
  } kCases[] = {
      {"GetIfTable", 1, 50, 1, true, "GetIfTable failed with error: 50"},
      {"GetAdaptersInfo", 1, 232, 9, false, "GetAdaptersInfo failed with error: 232"},
      {"HeapAlloc", 0, 8, 1, true, "Error allocating memory needed to call GetIfTable"},
  };
  for (const auto& testCase : kCases) {
    FailNext(testCase.call, testCase.error, testCase.skip);
    EXPECT_EQ(GetAdapterSpeed("eth0"), testCase.speed) << testCase.line;
    EXPECT_EQ(IsAdapterDhcpEnabled("eth0"), testCase.dhcp) << testCase.line;
    EXPECT_TRUE(InOrder(WmiMessages(), {testCase.line}));
    platform::gate::Arm();
  }
  FailNext("HeapAlloc", 8);
  EXPECT_TRUE(IsAdapterDhcpEnabled("eth0"));
  EXPECT_TRUE(InOrder(WmiMessages(), {"Error allocating memory needed to call GetAdaptersinfo"}));
}

TEST_F(AdaptersTest, TableThatOutgrowsItsFirstBlockIsReadPastTheBlock) {
  std::string adapters;
  for (int i = 0; i < 40; ++i) adapters += "eth" + std::to_string(i) + " speed=100 dynamic\n";
  Put("adapters.txt", adapters);
  EXPECT_EQ(GetAdapterSpeed("eth39"), 100U);
  EXPECT_TRUE(IsAdapterDhcpEnabled("eth39"));
  EXPECT_EQ(CountCalls("HeapAlloc"), 4U) << "each list once more, in the size that it asked for";
  EXPECT_EQ(CountCalls("HeapFree"), 4U);
}

struct WmiFailure {
  const char* call;
  const char* line;  // before the code
};
constexpr WmiFailure kWmiFailures[] = {
    {"CoInitializeEx", "Failed to initialize COM library. Error code = 0x"},
    {"CoInitializeSecurity",
     "Failed to initialize security in GetNetworkinformation(). Error code = 0x"},
    {"CoCreateInstance", "Failed to create IWbemLocator object. Err code = 0x"},
    {"ConnectServer", "Could not connect. Error code = 0x"},
    {"CoSetProxyBlanket", "Could not set proxy blanket. Error code = 0x"},
    {"ExecQuery", "Query for operating system name failed. Error code = 0x"},
};

TEST_F(AdaptersTest, FailedWmiStepGoesUnloggedOrLeavesComOpen) {
  Put("adapters.txt", kEthernet);
  for (const WmiFailure& failure : kWmiFailures) {
    for (const std::uint32_t error : {0x80041001U, 5U}) {
      platform::gate::Arm();
      FailNext(failure.call, error);
      const NetworkInfo before = record_;
      EXPECT_EQ(GetNetworkinformation(&record_), 1U) << failure.call;
      EXPECT_EQ(std::memcmp(&record_, &before, sizeof before), 0) << failure.call;
      const bool opened = std::string_view(failure.call) != "CoInitializeEx";
      EXPECT_EQ(CountCalls("CoUninitialize"), opened ? 1U : 0U) << failure.call;
      EXPECT_EQ(WmiMessages().back(),
                std::string(failure.line) + (error == 5 ? "80070005" : "80041001"));
    }
  }
}

TEST_F(AdaptersTest, RowOrPropertyThatFailsEndsMoreThanItself) {
  Put("adapters.txt", kEthernet);
  FailNext("Next", 0x80041001);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(record_.Speed, 0U) << "no row, no adapter";
  FailNext("Get", 0x80041002, 1);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(TextOf(record_.MACAddress), u"");
  EXPECT_EQ(TextOf(record_.Name), u"eth0");
}

TEST_F(AdaptersTest, OperatingSystemIsAskedUnderAnotherNameOrInAnotherOrder) {
  OperationSysSInfo record{};
  EXPECT_EQ(GetOSinformation(&record), 0U);
  EXPECT_NE(TextOf(record.Caption), u"");
  EXPECT_EQ(record.OSType, 36);
  EXPECT_TRUE(InOrder(platform::gate::Trace(),
                      {"ExecQuery(SELECT * FROM Win32_OperatingSystem)", "Next()", "Get(Caption)",
                       "Get(OSType)", "Get(OSArchitecture)", "Get(Version)", "CoUninitialize()"}));
  EXPECT_EQ(CountCalls("Next"), 1U) << "the first row only";
  EXPECT_TRUE(InOrder(WmiMessages(), {"Other type value 12", "closed here"}));
  FailNext("CoInitializeSecurity", 0x80010119);
  EXPECT_EQ(GetOSinformation(&record), 1U);
  EXPECT_EQ(WmiMessages().back(),
            "Failed to initialize security in GetOSinformation(). Error code = 0x80010119");
}

TEST_F(AdaptersTest, ObjectsOutliveCom) {
  Put("adapters.txt", kEthernet);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  const auto trace = platform::gate::Trace();
  std::size_t lastRelease = 0, end = 0;
  for (std::size_t i = 0; i < trace.size(); ++i) {
    if (trace[i] == "Release()") lastRelease = i;
    if (trace[i] == "CoUninitialize()") end = i;
  }
  EXPECT_EQ(CountCalls("Release"), 4U) << "row, service, locator, enumerator";
  EXPECT_LT(lastRelease, end);
}

TEST_F(AdaptersTest, ChassisTypeIsMisread) {
  Put("chassis.txt", "9 3 65546 10 11");
  DetectChassis();
  EXPECT_EQ(ServiceMessages(),
            (std::vector<std::string>{"Chassis Types:", "Laptop", "Desktop detected", "Laptop",
                                      "Laptop", "Desktop detected"}));
}

TEST_F(AdaptersTest, ChassisDetectionSpeaksOfItsFailure) {
  Put("chassis.txt", "9");
  for (const char* call : {"CoInitializeEx", "CoInitializeSecurity", "CoCreateInstance",
                           "ConnectServer", "ExecQuery", "Next", "Get"}) {
    platform::gate::Arm();
    FailNext(call, 5);
    DetectChassis();
    EXPECT_EQ(CountCalls("CoUninitialize"), std::string_view(call) == "CoInitializeEx" ? 0U : 1U)
        << call;
  }
  EXPECT_EQ(ServiceMessages(), std::vector<std::string>());
  EXPECT_EQ(WmiMessages(), std::vector<std::string>());
}

}  // namespace
}  // namespace stewardry
