// The three things that can happen to the IP record, and the two searches.
#include "service/inventory/ip_config.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/error.h"
#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {
namespace {

using platform::gate::FailNext;

constexpr std::uint32_t Address(std::uint32_t a, std::uint32_t b, std::uint32_t c,
                                std::uint32_t d) {
  return a | b << 8 | c << 16 | d << 24;
}

class IpConfigTest : public InventoryTest {
 protected:
  void SetUp() override {
    InventoryTest::SetUp();
    IPInfo old{};
    old.ipAddress = Address(1, 2, 3, 4);
    old.remotePort = 77;
    old.endMarker = kEndMarker;
    out_.Store(old);
  }
  IPInfo Search(std::uint32_t wlan) {
    GetIPCompleteInfomartion(&out_, kReportPort, wlan);
    return out_.Load();
  }
  SharedRecord<IPInfo> out_;
};

TEST_F(IpConfigTest, AdapterIsToldWrong) {
  Put("adapters.txt",
      "eth0 index=3 mac=02:03:04:05:06:A7:08:09 address=192.168.1.5/24 "
      "address=192.168.1.6/24 gateway=192.168.1.1 gateway=192.168.1.9 "
      "dns=192.168.1.2 dns=8.8.8.8\n");
  const IPInfo record = Search(kAnyAdapter);
  EXPECT_EQ(record.ipAddress, Address(192, 168, 1, 5));
  EXPECT_EQ(record.localPort, 623U);
  EXPECT_EQ(record.gatewayAddress, Address(192, 168, 1, 1));
  EXPECT_EQ(record.dnsAddress, Address(192, 168, 1, 2));
  EXPECT_EQ(record.subnetMask, Address(255, 255, 255, 0));
  EXPECT_EQ(record.remotePort, 0U);
  EXPECT_EQ(std::memcmp(record.macAddress, "\x02\x03\x04\x05\x06\xA7", 6), 0);
  EXPECT_EQ(record.endMarker, 0) << "the two bytes behind the address aren't the adapter's";
  EXPECT_EQ(WmiMessages(), (std::vector<std::string>{
                               "Inside GetIPCompleteInfomartion",
                               "Memory allocated for GetAdapterAddresses = 472 bytes",
                               "Calling GetAdaptersAddresses function with family = 2",
                               "\tOperStatus: 1",
                               "\tLength of the IP_ADAPTER_ADDRESS struct: 448",
                               "\tIfIndex (IPv4 interface): 3",
                               "\tAdapter name: eth0",
                               "\tIPV4 address: 0x501a8c0",
                               "\tIPV4: 192.168.1.5",
                               "\tIPV4 address Network byte order: 0x501a8c0",
                               "Length of mask: 24",
                               "\tIPV4 Subnet: 0xffffff",
                               "\tIPV4 Mask:255.255.255.0",
                               "\tNumber of Unicast Addresses: 2",
                               "\tIPV4 DNSserver:192.168.1.2",
                               "\tIPV4 DNSServer Network byte order: 0x201a8c0",
                               "\tIPV4 Gateway:192.168.1.1",
                               "\tIPV4 Gateway Network byte order: 0x101a8c0",
                               "\tPhysical address: ",
                               "02",
                               "03",
                               "04",
                               "05",
                               "06",
                               "A7",
                               "08",
                               "09",
                           }));
}

TEST_F(IpConfigTest, SearchEndsOnAnotherAdapter) {
  const std::string loopback = std::string("lo loopback index=1 address=127.0.0.1/8\n");
  const struct {
    const char* what;
    std::string adapters;
    std::uint32_t wlan;
    std::uint32_t address;
  } kCases[] = {
      {"any adapter: the first that is up",
       loopback + "eth1 index=2 down\n" + kEthernet + kWireless, kAnyAdapter,
       Address(192, 168, 1, 5)},
      {"wireless, behind an Ethernet adapter", loopback + kEthernet + kWireless, kWirelessAdapter,
       Address(10, 0, 0, 7)},
      {"no wireless adapter up: the loopback one", loopback + kEthernet + "wlan1 wireless down\n",
       kWirelessAdapter, kLoopbackAddress},
      {"nothing but the loopback adapter", loopback, kAnyAdapter, kLoopbackAddress},
      {"a wlan word that is neither", kEthernet, 7, Address(192, 168, 1, 5)},
  };
  for (const auto& testCase : kCases) {
    Put("adapters.txt", testCase.adapters);
    EXPECT_EQ(Search(testCase.wlan).ipAddress, testCase.address) << testCase.what;
  }
}

TEST_F(IpConfigTest, MissingGatewayOrDnsServerLeavesOldOnes) {
  Put("adapters.txt", "eth0 address=10.0.0.1\n");
  const IPInfo record = Search(kAnyAdapter);
  EXPECT_EQ(record.gatewayAddress, 0U);
  EXPECT_EQ(record.dnsAddress, 0U);
  EXPECT_EQ(record.subnetMask, 0U) << "a prefix length of 0 gives no mask";
  EXPECT_EQ(WmiMessages().back(), "\tNumber of Unicast Addresses: 1");
}

TEST_F(IpConfigTest, NoAdapterUpTouchesTheRecord) {
  Put("adapters.txt", "eth0 down\n");
  EXPECT_EQ(Search(kWirelessAdapter).ipAddress, Address(1, 2, 3, 4));
  EXPECT_EQ(out_.Load().remotePort, 77U);
  EXPECT_TRUE(InOrder(WmiMessages(), {"Inside WLAN condition", "\tOperStatus: 2", "not found"}));
  EXPECT_EQ(CountCalls("HeapFree"), CountCalls("HeapAlloc"));
}

TEST_F(IpConfigTest, NoMemoryTouchesTheRecord) {
  for (const std::uint64_t skip : {0U, 1U}) {
    Put("adapters.txt", kEthernet);
    FailNext("HeapAlloc", 8, skip);
    EXPECT_EQ(Search(kAnyAdapter).ipAddress, Address(1, 2, 3, 4));
    EXPECT_EQ(WmiMessages(),
              std::vector<std::string>(skip + 1,
                                       "Memory allocation failed for IP_ADAPTER_ADDRESSES struct"));
  }
}

TEST_F(IpConfigTest, FailedCallLeavesMoreThanThePort) {
  Put("adapters.txt", kEthernet);
  FailNext("GetAdaptersAddresses", 50, 1);
  const IPInfo record = Search(kAnyAdapter);
  IPInfo expected{};
  expected.localPort = 623;
  EXPECT_EQ(std::memcmp(&record, &expected, sizeof record), 0);
  EXPECT_EQ(CountCalls("HeapFree"), CountCalls("HeapAlloc"));
}

}  // namespace
}  // namespace stewardry
