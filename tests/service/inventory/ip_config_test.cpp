// The three outcomes for the IP record, and the two searches.
#include "service/inventory/ip_config.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kOldAddress = 0x04030201;

class IpConfigTest : public InventoryTest {
 protected:
  void SetUp() override {
    InventoryTest::SetUp();
    IPInfo old{};
    old.ipAddress = kOldAddress;
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

TEST_F(IpConfigTest, FirstAddressesOfTheAdapterFillTheRecord) {
  Put("adapters.txt",
      "eth0 index=3 mac=02:03:04:05:06:A7:08:09 address=192.168.1.5/24 address=192.168.1.6/24 "
      "gateway=192.168.1.1 gateway=192.168.1.9 dns=192.168.1.2 dns=8.8.8.8\n");
  const IPInfo record = Search(kAnyAdapter);
  EXPECT_EQ(record.ipAddress, kEthernetAddress);
  EXPECT_EQ(record.localPort, 623U);
  EXPECT_EQ(record.gatewayAddress, 0x0101A8C0U);
  EXPECT_EQ(record.dnsAddress, 0x0201A8C0U);
  EXPECT_EQ(record.subnetMask, 0x00FFFFFFU);
  EXPECT_EQ(record.remotePort, 0U);
  EXPECT_EQ(std::memcmp(record.macAddress, "\x02\x03\x04\x05\x06\xA7", 6), 0);
  EXPECT_EQ(record.endMarker, 0) << "of a hardware address of 8 bytes, 6 are kept";
  EXPECT_EQ(WmiMessages(), (Lines{"Inside GetIPCompleteInfomartion",
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
                                  "09"}));
}

TEST_F(IpConfigTest, SearchTakesTheFirstAdapterThatFits) {
  const std::string loopback = "lo loopback index=1 address=127.0.0.1/8\n";
  const struct {
    const char* name;
    std::string adapters;
    std::uint32_t wlan;
    std::uint32_t address;
  } kRows[] = {
      {"any, one is down", loopback + "eth1 index=2 down\n" + kEthernet + kWireless, kAnyAdapter,
       kEthernetAddress},
      {"wireless", loopback + kEthernet + kWireless, kWirelessAdapter, kWirelessAddress},
      {"wireless is down", loopback + kEthernet + "wlan1 wireless down\n", kWirelessAdapter,
       kLoopbackAddress},
      {"loopback only", loopback, kAnyAdapter, kLoopbackAddress},
      {"another word for the adapter", kEthernet, 7, kEthernetAddress},
  };
  for (const auto& row : kRows) {
    Put("adapters.txt", row.adapters);
    EXPECT_EQ(Search(row.wlan).ipAddress, row.address) << row.name;
  }
}

TEST_F(IpConfigTest, MissingFactsAreZero) {
  Put("adapters.txt", "eth0 address=10.0.0.1\n");
  const IPInfo record = Search(kAnyAdapter);
  EXPECT_EQ(record.gatewayAddress, 0U);
  EXPECT_EQ(record.dnsAddress, 0U);
  EXPECT_EQ(record.subnetMask, 0U);
}

TEST_F(IpConfigTest, SearchWithoutAResultLeavesTheRecord) {
  Put("adapters.txt", "eth0 down\n");
  EXPECT_EQ(Search(kWirelessAdapter).ipAddress, kOldAddress);
  EXPECT_EQ(out_.Load().remotePort, 77U);
  EXPECT_TRUE(InOrder(WmiMessages(), {"Inside WLAN condition", "\tOperStatus: 2", "not found"}));
  Put("adapters.txt", kEthernet);
  for (const std::uint64_t skip : {0U, 1U}) {
    gate::FailNext("HeapAlloc", 8, skip);
    EXPECT_EQ(Search(kAnyAdapter).ipAddress, kOldAddress);
    EXPECT_EQ(WmiMessages().back(), "Memory allocation failed for IP_ADAPTER_ADDRESSES struct");
  }
  EXPECT_EQ(CountCalls("HeapAlloc"), CountCalls("HeapFree") + 2);
}

TEST_F(IpConfigTest, FailedCallLeavesThePortOnly) {
  Put("adapters.txt", kEthernet);
  gate::FailNext("GetAdaptersAddresses", 50, 1);
  const IPInfo record = Search(kAnyAdapter);
  EXPECT_EQ(record.localPort, 623U);
  EXPECT_EQ(record.ipAddress + record.remotePort + record.endMarker, 0U);
}

}  // namespace
}  // namespace stewardry
