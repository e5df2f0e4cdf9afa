#include "service/standby/address_watch.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <tuple>

#include "service/standby/address_dumps.h"
#include "tests/own_network.h"
#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {
namespace {

class AddressWatch : public ReportTest {
 protected:
  void TearDown() override {
    UnregisterNetworkEvent();
    ReportTest::TearDown();
  }
  void Inject(const std::string& text) { SendDatagram(lab() + "/addresses", text); }
  static std::uint32_t Notify(void*) {
    IpInterfaceChangeCallback(nullptr, nullptr, 0);
    return 0;
  }
};

TEST_F(AddressWatch, NewAddressIsReportedOnce) {
  // Adapters, the kind of search (1: not Ethernet), messages sent so far, the address last
  // reported.
  using Row = std::tuple<std::string, std::uint32_t, std::size_t, std::uint32_t>;
  for (const auto& [adapters, type, sent, address] :
       {Row{kLoopbackOnly, 0, 0, 0}, Row{kEthernet, 0, 2, kEthernetAddress},
        Row{kEthernet, 2, 2, kEthernetAddress},
        Row{std::string(kEthernet) + kWireless, 1, 4, kWirelessAddress},
        Row{kLoopbackOnly, 0, 4, kWirelessAddress}}) {
    Put("adapters.txt", adapters);
    IpInterfaceChangeCallback(nullptr, nullptr, type);
    EXPECT_EQ(Sent().size(), sent) << adapters;
    EXPECT_EQ(gStandby->gLastReportedAddress.load(), address) << adapters;
  }
  EXPECT_EQ(Sent(), (Codes{kWriteBooted, kWriteIp, kWriteBooted, kWriteIp}));
  EXPECT_EQ(Message<IPInfo>(1).ipAddress, kEthernetAddress);
  EXPECT_TRUE(InOrder(ServiceMessages(), {"Received", "Ipchange received 501a8c0", "Received"}));
}

TEST_F(AddressWatch, EntryDuringAReportOnlyCounts) {
  Put("adapters.txt", kEthernet);
  firmware_->SetVerdict(kWriteIp, FirmwarePeer::kHold);
  std::thread first(Notify, nullptr);
  ASSERT_TRUE(firmware_->Await(kWriteIp));
  Notify(nullptr);
  Notify(nullptr);
  EXPECT_EQ(gStandby->gIpChangeEntry.load(), 3U);
  EXPECT_EQ(Sent(), (Codes{kWriteBooted, kWriteIp}));
  platform::CancelIoEx(gMailboxLink->gRequestDevice, nullptr);
  first.join();
  EXPECT_EQ(gStandby->gIpChangeEntry.load(), 0U);
}

// A count left high would silence the watch for ever.
TEST_F(AddressWatch, ThreadEndedInAReportResetsTheCount) {
  Put("adapters.txt", kEthernet);
  firmware_->SetVerdict(kWriteBooted, FirmwarePeer::kHold);
  platform::Thread thread = platform::CreateThread(Notify, nullptr);
  ASSERT_TRUE(firmware_->Await(kWriteBooted));
  EndThread(&thread);
  EXPECT_EQ(gStandby->gIpChangeEntry.load(), 0U);
  EXPECT_EQ(gStandby->gLastReportedAddress.load(), 0U);
}

TEST_F(AddressWatch, WatchReportsChangesUntilItIsUnregistered) {
  (void)EnterOwnNetwork();  // keeps the host's own changes out, where this user may
  Put("adapters.txt", kLoopbackOnly);
  gate::FailNext("NotifyIpInterfaceChange", 8);
  EXPECT_EQ(RegisterNetworkEvent(), 0U);
  EXPECT_EQ(RegisterNetworkEvent(), 1U);
  EXPECT_EQ(RegisterNetworkEvent(), 0U) << "a second handle would be lost";
  Put("adapters.txt", kEthernet);
  for (const char* word : {"what", "change"}) Inject(word);
  EXPECT_TRUE(Eventually([] { return gStandby->gLastReportedAddress.load() == kEthernetAddress; }));
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  Inject("add");
  EXPECT_TRUE(Eventually([] { return gStandby->gLastReportedAddress.load() == kWirelessAddress; }));
  UnregisterNetworkEvent();
  EXPECT_EQ(ServiceMessages().front(), "Success RegisterNetworkEvent");
  EXPECT_EQ(ServiceMessages().back(), "CancelMibChangeNotify2 Passed");
  UnregisterNetworkEvent();
  EXPECT_EQ(CountCalls("CancelMibChangeNotify2"), 1U);
}

class AddressDumps : public InventoryTest {};

// A numeric host name is its own address.
TEST_F(AddressDumps, HostAddressIsLoggedBehindTheValue) {
  if (!EnterOwnHostNames("10.1.2.3", "")) GTEST_SKIP() << "needs the right to name the host";
  gate::FailNext("gethostbyname", 11001);
  LogHostAddress(1);
  LogHostAddress(0xBEEF);
  EXPECT_EQ(ServiceMessages(), (Lines{"Hostname: beef", "Host IP: 10.1.2.3"}));
}

TEST_F(AddressDumps, EachRowOfTheAddressTableIsLogged) {
  Put("adapters.txt", std::string(kWireless) + "eth9 down index=12 address=10.1.1.1/30\n");
  EXPECT_EQ(DumpIpAddrTable(), 0U);
  EXPECT_TRUE(InOrder(
      ServiceMessages(),
      {"\tNum Entries: 2", "\tInterface Index[ 0]:\t  4", "\tType and State[0]:",
       "\tPrimary IP Address", "\tDynamic IP Address", "\tInterface Index[ 1]:\t  12",
       "\tIP Address[1]:     \t10.1.1.1", "\tSubnet Mask[1]:    \t255.255.255.252",
       "\tBroadCast[1]:      \t1.0.0.0 ( 1)", "\tReassembly size[1]:\t65535",
       "\tType and State[1]:", "\tPrimary IP Address", "\tAddress is on disconnected interface"}));
  gate::FailEvery("GetIpAddrTable", 122);  // the table grows each time
  EXPECT_EQ(DumpIpAddrTable(), 1U);
  EXPECT_TRUE(Logged("GetIpAddrTable failed with error 122"));
}

TEST_F(AddressDumps, WlanProfilesFillTheirMemoryUpToTheCallThatFails) {
  Put("wlan.txt", "1\n9\n");
  Put("wlan_profiles.txt",
      "0 1 Office <a/>\n0 2 Home <bb>two words</bb>\n1 3 Far <c/>\n0 0 Empty\n");
  const std::u16string whole = u"<a/><bb>two words</bb><c/>";
  // Exactly as much memory as the span, so that a sanitizer detects one unit too many.
  for (std::size_t room = 0; room <= whole.size() + 3; ++room) {
    const std::unique_ptr<char16_t[]> text(new char16_t[room]);
    std::fill_n(text.get(), room, u'!');
    EXPECT_EQ(CollectWlanProfiles({text.get(), room}), 0U);
    if (room == 0) continue;
    const std::u16string kept = whole.substr(0, room - 1);
    EXPECT_EQ(std::u16string(text.get(), kept.size() + 1), kept + u'\0') << room;
  }
  EXPECT_TRUE(InOrder(
      WmiMessages(),
      {"Num Entries: 2", "  Interface Index[1]:\t 1", "{00005754-4C41-4E00-8000-000000000001}",
       "  Interface State[1]:\t Unknown state 9", "WLAN_PROFILE_INFO_LIST for this interface",
       "  Num Entries: 1", "  Flags[0]:\t    0x3", "   Group Policy", "   Per User Profile"}));

  using Row = std::tuple<std::string, const char16_t*>;
  for (const auto& [call, collected] :
       {Row{"WlanOpenHandle", u"before"}, Row{"WlanEnumInterfaces", u"before"},
        Row{"WlanGetProfileList", u"<c/>"}, Row{"WlanGetProfile", u"<bb>two words</bb><c/>"}}) {
    char16_t text[64] = u"before";
    gate::Arm();
    gate::FailNext(call.c_str(), 31);
    EXPECT_EQ(CollectWlanProfiles(text), 1U) << call;
    EXPECT_EQ(std::u16string(text), collected) << call;
    EXPECT_TRUE(InOrder(WmiMessages(), {call + " failed with error: 31"}));
    EXPECT_EQ(CountCalls("WlanCloseHandle"), call == "WlanOpenHandle" ? 0U : 1U);
  }
}

}  // namespace
}  // namespace stewardry
