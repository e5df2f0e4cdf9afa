// The adapter's record, the steps through WMI with each of their failures, and the two other
// readers of WMI: operating system and chassis.
#include "service/inventory/adapters.h"

#include <gtest/gtest.h>

#include <cstring>

#include "service/inventory/chassis.h"
#include "service/inventory/status_report.h"
#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {
namespace {

class AdaptersTest : public InventoryTest {
 protected:
  NetworkInfo record_{};
};

TEST_F(AdaptersTest, ConnectedAdapterFillsTheRecord) {
  Put("adapters.txt", kEthernet);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(TextOf(record_.Name), u"eth0");
  EXPECT_EQ(record_.Speed, 1000000000U);
  EXPECT_EQ(TextOf(record_.MACAddress), u"02:00:00:00:00:01");
  EXPECT_EQ(TextOf(record_.DeviceID), u"3");
  EXPECT_EQ(record_.StatusInfo, 3);
  EXPECT_EQ(record_.endMarker, 0) << "set by the sender";
  EXPECT_EQ(record_.addressOrigin, kAddressOriginStatic);
  EXPECT_EQ(WmiMessages(),
            (Lines{"Connected to ROOT\\CIMV2 WMI namespace", "Status info: 3",
                   "MAC info: 02:00:00:00:00:01,34", "Device ID: 3", "Network name: eth0,8",
                   "\tDescription:\teth0", "\tindex: 3, Speed:\t 1000000000",
                   "\tAdapter Description: \teth0", "Address Origin: Static", "Speed: 1000000000",
                   "closed here"}));
}

TEST_F(AdaptersTest, FirstConnectedAdapterIsTaken) {
  const struct {
    std::string adapters;
    std::u16string name;
    std::uint32_t origin;
  } kRows[] = {
      {std::string("eth9 index=1 down\n") + kWireless + kEthernet, u"eth0", kAddressOriginStatic},
      {std::string("eth9 index=1 down\n") + kWireless, u"wlan0", kAddressOriginDhcp},
      {std::string("eth0 down\n") + kLoopbackOnly, u"ZZZZ",
       0x5A5A5A5A},  // the record is left alone
  };
  for (const auto& row : kRows) {
    std::memset(&record_, 0x5A, sizeof record_);
    FillText(record_.Name, u"ZZZZ");
    Put("adapters.txt", row.adapters);
    EXPECT_EQ(GetNetworkinformation(&record_), 0U);
    EXPECT_EQ(TextOf(record_.Name), row.name);
    EXPECT_EQ(record_.addressOrigin, row.origin);
  }
}

TEST_F(AdaptersTest, LongNameIsCutInItsFieldOnly) {
  const std::string name(120, 'n');
  Put("adapters.txt", name + " speed=7 dynamic\n");
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(TextOf(record_.Name), std::u16string(96, u'n'));
  EXPECT_EQ(record_.Speed, 7U) << "found by the whole name, and kept beside it";
  EXPECT_EQ(record_.addressOrigin, kAddressOriginDhcp);
}

TEST_F(AdaptersTest, SpeedIsTheFirstOneOfTheWholeName) {
  Put("adapters.txt", "eth0 speed=0\neth1 speed=5\neth0 speed=1\neth0 speed=11\n");
  EXPECT_EQ(GetAdapterSpeed("eth0"), 1U);
  EXPECT_EQ(GetAdapterSpeed("eth"), 0U);
}

TEST_F(AdaptersTest, FailedLookupHasItsOwnAnswerAndLine) {
  Put("adapters.txt", "eth0 speed=9 dynamic\n");
  const struct {
    const char* call;
    std::uint64_t skip;
    std::uint64_t speed;
    bool dhcp;
    const char* line;
  } kRows[] = {
      {"GetIfTable", 1, 1, true, "GetIfTable failed with error: 50"},
      {"GetAdaptersInfo", 1, 9, false, "GetAdaptersInfo failed with error: 50"},
      {"HeapAlloc", 0, 1, true, "Error allocating memory needed to call GetIfTable"},
      {"HeapAlloc", 1, 9, true, "Error allocating memory needed to call GetAdaptersinfo"},
  };
  for (const auto& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, 50, row.skip);
    EXPECT_EQ(GetAdapterSpeed("eth0"), row.speed) << row.line;
    EXPECT_EQ(IsAdapterDhcpEnabled("eth0"), row.dhcp) << row.line;
    EXPECT_TRUE(InOrder(WmiMessages(), {row.line}));
    EXPECT_EQ(CountCalls("HeapFree") + (row.call[0] == 'H'), CountCalls("HeapAlloc"));
  }
}

TEST_F(AdaptersTest, TableThatOutgrowsItsFirstBlockIsReadInASecondOne) {
  std::string adapters;
  for (int i = 0; i < 40; ++i) adapters += "eth" + std::to_string(i) + " speed=100 dynamic\n";
  Put("adapters.txt", adapters);
  EXPECT_EQ(GetAdapterSpeed("eth39"), 100U);
  EXPECT_TRUE(IsAdapterDhcpEnabled("eth39"));
  EXPECT_EQ(CountCalls("HeapAlloc"), 4U);
  EXPECT_EQ(CountCalls("HeapFree"), 4U);
}

TEST_F(AdaptersTest, FailedWmiStepIsLoggedAndEndsCom) {
  const struct {
    const char* call;
    const char* line;  // before the code
  } kRows[] = {
      {"CoInitializeEx", "Failed to initialize COM library. Error code = 0x"},
      {"CoInitializeSecurity",
       "Failed to initialize security in GetNetworkinformation(). Error code = 0x"},
      {"CoCreateInstance", "Failed to create IWbemLocator object. Err code = 0x"},
      {"ConnectServer", "Could not connect. Error code = 0x"},
      {"CoSetProxyBlanket", "Could not set proxy blanket. Error code = 0x"},
      {"ExecQuery", "Query for operating system name failed. Error code = 0x"},
  };
  Put("adapters.txt", kEthernet);
  for (const auto& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, 5);
    EXPECT_EQ(GetNetworkinformation(&record_), 1U) << row.call;
    EXPECT_EQ(TextOf(record_.Name), u"") << row.call;
    EXPECT_EQ(CountCalls("CoUninitialize"), &row == kRows ? 0U : 1U) << row.call;
    EXPECT_EQ(WmiMessages().back(), std::string(row.line) + "80070005");
  }
}

TEST_F(AdaptersTest, FailedRowOrPropertyIsLeftOut) {
  Put("adapters.txt", kEthernet);
  gate::FailNext("Next", 0x80041001);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(record_.Speed, 0U);
  gate::FailNext("Get", 0x80041002, 1);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  EXPECT_EQ(TextOf(record_.MACAddress), u"");
  EXPECT_EQ(TextOf(record_.Name), u"eth0");
}

TEST_F(AdaptersTest, OperatingSystemIsReadFromTheFirstRow) {
  OperationSysSInfo record{};
  EXPECT_EQ(GetOSinformation(&record), 0U);
  EXPECT_NE(TextOf(record.Caption), u"");
  EXPECT_EQ(record.OSType, 36);
  EXPECT_TRUE(InOrder(gate::Trace(), {"ExecQuery(SELECT * FROM Win32_OperatingSystem)", "Next()",
                                      "Get(Caption)", "Get(OSType)", "Get(OSArchitecture)",
                                      "Get(Version)", "Release()", "CoUninitialize()"}));
  EXPECT_EQ(CountCalls("Next"), 1U);
  EXPECT_EQ(CallsOf({"Release", "CoUninitialize"}),
            (Lines{"Release()", "Release()", "Release()", "Release()", "CoUninitialize()"}))
      << "row, service, locator and enumerator, before COM ends";
  EXPECT_TRUE(InOrder(WmiMessages(), {"Other type value 12", "closed here"}));
}

TEST_F(AdaptersTest, ChassisTypesAreLoggedAndFailuresAreSilent) {
  Put("chassis.txt", "9 3 65546 10 11");
  for (const char* call : {"CoInitializeEx", "CoInitializeSecurity", "ConnectServer", "Get"}) {
    gate::FailNext(call, 5);
    DetectChassis();
  }
  DetectChassis();
  EXPECT_EQ(ServiceMessages(), (Lines{"Chassis Types:", "Laptop", "Desktop detected", "Laptop",
                                      "Laptop", "Desktop detected"}));
  EXPECT_EQ(WmiMessages(), Lines{});
}

}  // namespace
}  // namespace stewardry
