#include "service/inventory/adapters.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "platform/wmi.h"
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
  using Row = std::tuple<std::string, std::u16string, std::uint32_t>;
  const std::string down = "eth9 index=1 down\n";
  for (const auto& [adapters, name, origin] :
       {Row{down + kWireless + kEthernet, u"eth0", kAddressOriginStatic},
        Row{down + kWireless, u"wlan0", kAddressOriginDhcp},
        Row{std::string(120, 'n') + " dynamic\n", std::u16string(96, u'n'), kAddressOriginDhcp},
        Row{down + kLoopbackOnly, u"old", 0x5A5A5A5A}}) {  // the record is left alone
    std::memset(&record_, 0x5A, sizeof record_);
    FillText(record_.Name, u"old");
    Put("adapters.txt", adapters);
    EXPECT_EQ(GetNetworkinformation(&record_), 0U);
    EXPECT_EQ(TextOf(record_.Name), name);
    EXPECT_EQ(record_.addressOrigin, origin);
  }
}

TEST_F(AdaptersTest, FailedLookupHasItsOwnResultAndLine) {
  Put("adapters.txt", "eth0 speed=9 dynamic\n");
  using Row = std::tuple<const char*, std::uint64_t, std::uint64_t, bool, const char*>;
  for (const auto& [call, skip, speed, dhcp, line] :
       {Row{"GetIfTable", 1, 1, true, "GetIfTable failed with error: 50"},
        Row{"GetAdaptersInfo", 1, 9, false, "GetAdaptersInfo failed with error: 50"},
        Row{"HeapAlloc", 0, 1, true, "Error allocating memory needed to call GetIfTable"},
        Row{"HeapAlloc", 1, 9, true, "Error allocating memory needed to call GetAdaptersinfo"}}) {
    gate::FailNext(call, 50, skip);
    EXPECT_EQ(GetAdapterSpeed("eth0"), speed) << line;
    EXPECT_EQ(IsAdapterDhcpEnabled("eth0"), dhcp) << line;
    EXPECT_TRUE(InOrder(WmiMessages(), {line}));
  }
  Put("adapters.txt", "eth speed=2\neth0\neth0 speed=3\neth0 speed=4\n");
  EXPECT_EQ(GetAdapterSpeed("eth0"), 3U) << "the first one of exactly that name";
}

TEST_F(AdaptersTest, FailedWmiStepIsLoggedUnlessSecurityIsInForceAndEndsCom) {
  Put("adapters.txt", kEthernet);
  std::size_t ended = 0;
  using Row = std::tuple<const char*, const char*>;
  for (const auto& [call, line] :
       {Row{"CoInitializeEx", "Failed to initialize COM library."},
        Row{"CoInitializeSecurity", "Failed to initialize security in GetNetworkinformation()."},
        Row{"CoCreateInstance", "Failed to create IWbemLocator object."},
        Row{"ConnectServer", "Could not connect."},
        Row{"CoSetProxyBlanket", "Could not set proxy blanket."},
        Row{"ExecQuery", "Query for operating system name failed."}}) {
    gate::FailNext(call, 5);
    EXPECT_EQ(GetNetworkinformation(&record_), 1U) << call;
    EXPECT_EQ(TextOf(record_.Name), u"") << call;
    EXPECT_EQ(CountCalls("CoUninitialize"), ended++) << call;
    EXPECT_EQ(WmiMessages().back().find(line), 0U) << WmiMessages().back();
    EXPECT_TRUE(WmiMessages().back().ends_with("ode = 0x80070005"));
  }
  // The situation of an access that overlaps with another, or follows one whose thread was ended.
  EXPECT_EQ(platform::CoInitializeEx() | platform::CoInitializeSecurity(), 0);
  EXPECT_EQ(GetNetworkinformation(&record_), 0U);
  platform::CoUninitialize();
}

TEST_F(AdaptersTest, OperatingSystemIsReadFromTheFirstRow) {
  OperationSysSInfo record{};
  EXPECT_EQ(GetOSinformation(&record), 0U);
  EXPECT_NE(TextOf(record.Caption), u"");
  EXPECT_EQ(record.OSType, 36);
  EXPECT_EQ(CallsOf({"Next", "Get", "Release", "CoUninitialize"}),
            (Lines{"Next()", "Get(Caption)", "Get(OSType)", "Get(OSArchitecture)", "Get(Version)",
                   "Release()", "Release()", "Release()", "Release()", "CoUninitialize()"}))
      << "row, service, locator and enumerator are released before COM ends";
  EXPECT_TRUE(InOrder(WmiMessages(), {"Other type value 12", "closed here"}));
}

TEST_F(AdaptersTest, ChassisTypesAreLogged) {
  Put("chassis.txt", "9 3 65546 10 11");
  DetectChassis();
  EXPECT_EQ(ServiceMessages(), (Lines{"Chassis Types:", "Laptop", "Desktop detected", "Laptop",
                                      "Laptop", "Desktop detected"}));
  EXPECT_EQ(WmiMessages(), Lines{});
}

}  // namespace
}  // namespace stewardry
