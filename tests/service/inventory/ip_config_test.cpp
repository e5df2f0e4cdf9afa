#include "service/inventory/ip_config.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

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
  EXPECT_EQ(std::memcmp(record.macAddress, "\x02\x03\x04\x05\x06\xA7", 6), 0);
  EXPECT_EQ(record.endMarker, 0) << "of a hardware address of 8 bytes, 6 are kept";
  EXPECT_TRUE(InOrder(
      WmiMessages(),
      {"Memory allocated for GetAdapterAddresses = 472 bytes", "\tOperStatus: 1",
       "\tIfIndex (IPv4 interface): 3", "\tAdapter name: eth0", "\tIPV4 address: 0x501a8c0",
       "Length of mask: 24", "\tIPV4 Mask:255.255.255.0", "\tNumber of Unicast Addresses: 2",
       "\tIPV4 DNSserver:192.168.1.2", "\tIPV4 Gateway:192.168.1.1", "A7", "08", "09"}));
}

TEST_F(IpConfigTest, SearchReturnsTheFirstAdapterThatFits) {
  const std::string loopback = "lo loopback index=1 address=127.0.0.1/8\n";
  using Row = std::tuple<std::string, std::uint32_t, std::uint32_t>;
  for (const auto& [adapters, wlan, address] :
       {Row{"eth0 down\n", kWirelessAdapter, kOldAddress},  // the record is left alone
        Row{loopback + "eth1 index=2 down\n" + kEthernet + kWireless, kAnyAdapter,
            kEthernetAddress},
        Row{loopback + kEthernet + kWireless, kWirelessAdapter, kWirelessAddress},
        Row{loopback + kEthernet + "wlan1 wireless down\n", kWirelessAdapter, kLoopbackAddress},
        Row{loopback, kAnyAdapter, kLoopbackAddress}, Row{kEthernet, 7, kEthernetAddress}}) {
    Put("adapters.txt", adapters);
    EXPECT_EQ(Search(wlan).ipAddress, address) << adapters;
  }
  gate::FailNext("GetAdaptersAddresses", 50, 1);
  EXPECT_EQ(Search(kAnyAdapter).localPort, 623U) << "a failed call leaves the port only";
  EXPECT_EQ(out_.Load().ipAddress, 0U);
}

}  // namespace
}  // namespace stewardry
