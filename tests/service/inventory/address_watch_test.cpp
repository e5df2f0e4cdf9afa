// The watch on the host's addresses, and the dumps.
#include "service/inventory/address_watch.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "service/inventory/address_dumps.h"
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
  static std::uint32_t Notify(void*) { return IpInterfaceChangeCallback(nullptr, nullptr, 0), 0; }
};

TEST_F(AddressWatch, NewAddressIsReportedOnce) {
  const struct {
    const char* name;
    std::string adapters;
    std::uint32_t type;  // the kind of search: 1 asks for an adapter that isn't Ethernet
    std::size_t sent;
    std::uint32_t address;  // last reported
  } kRows[] = {
      {"loopback", kLoopbackOnly, 0, 0, 0},
      {"new", kEthernet, 0, 2, kEthernetAddress},
      {"same", kEthernet, 2, 0, kEthernetAddress},
      {"wireless", std::string(kEthernet) + kWireless, 1, 2, kWirelessAddress},
      {"back to loopback", kLoopbackOnly, 0, 0, kWirelessAddress},
  };
  std::size_t before = 0;
  for (const auto& row : kRows) {
    Put("adapters.txt", row.adapters);
    IpInterfaceChangeCallback(nullptr, nullptr, row.type);
    EXPECT_EQ(Sent().size() - before, row.sent) << row.name;
    before = Sent().size();
    EXPECT_EQ(gLastReportedAddress.load(), row.address) << row.name;
    EXPECT_EQ(gIpChangeEntry.load(), 0U);
    EXPECT_EQ(ServiceMessages().back(), "Received");
  }
  EXPECT_EQ(Sent(), (Codes{kWriteBooted, kWriteIp, kWriteBooted, kWriteIp}));
  const auto ip = Message<IPInfo>(1);
  EXPECT_EQ(ip.ipAddress, kEthernetAddress);
  EXPECT_EQ(ip.localPort, 623U);
  EXPECT_EQ(ip.endMarker, 0xFFFF);
  EXPECT_TRUE(InOrder(ServiceMessages(), {"Ipchange received 501a8c0", "Received"}));
}

TEST_F(AddressWatch, EntryDuringAReportOnlyCounts) {
  Put("adapters.txt", kEthernet);
  firmware_->SetVerdict(kWriteIp, FirmwarePeer::kHold);
  std::thread first(Notify, nullptr);
  ASSERT_TRUE(firmware_->Await(kWriteIp));
  Notify(nullptr);
  Notify(nullptr);
  EXPECT_EQ(gIpChangeEntry.load(), 3U);
  EXPECT_EQ(Sent(), (Codes{kWriteBooted, kWriteIp}));
  platform::CancelIoEx(*gRequestDevice, nullptr);
  first.join();
  EXPECT_EQ(gIpChangeEntry.load(), 0U);
}

// A count left high would keep the watch silent for good.
TEST_F(AddressWatch, ThreadEndedInAReportResetsTheCount) {
  Put("adapters.txt", kEthernet);
  firmware_->SetVerdict(kWriteBooted, FirmwarePeer::kHold);
  platform::Thread thread = platform::CreateThread(Notify, nullptr);
  ASSERT_TRUE(firmware_->Await(kWriteBooted));
  EndThread(&thread);
  EXPECT_EQ(gIpChangeEntry.load(), 0U);
  EXPECT_EQ(gLastReportedAddress.load(), 0U);
}

TEST_F(AddressWatch, WatchReportsChangesUntilItIsUnregistered) {
  Put("adapters.txt", kLoopbackOnly);
  gate::FailNext("NotifyIpInterfaceChange", 8);
  EXPECT_EQ(RegisterNetworkEvent(), 0U);
  EXPECT_EQ(gIpChangeHandle.load(), nullptr);
  EXPECT_EQ(RegisterNetworkEvent(), 1U);
  EXPECT_EQ(RegisterNetworkEvent(), 0U) << "a second handle would be lost";
  Put("adapters.txt", kEthernet);
  for (const char* word : {"what", "change"}) Inject(word);
  EXPECT_TRUE(Eventually([] { return gLastReportedAddress.load() == kEthernetAddress; }));
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  Inject("add");
  EXPECT_TRUE(Eventually([] { return gLastReportedAddress.load() == kWirelessAddress; }));
  UnregisterNetworkEvent();
  EXPECT_EQ(ServiceMessages().front(), "Success RegisterNetworkEvent");
  EXPECT_EQ(ServiceMessages().back(), "CancelMibChangeNotify2 Passed");
  UnregisterNetworkEvent();
  EXPECT_EQ(CountCalls("CancelMibChangeNotify2"), 1U);
  EXPECT_EQ(RegisterNetworkEvent(), 1U);
}

class AddressDumps : public InventoryTest {};

// A numeric host name is its own address.
TEST_F(AddressDumps, HostAddressIsLoggedBehindTheValue) {
  if (!EnterOwnHostNames("10.1.2.3", "")) GTEST_SKIP() << "needs the right to name the host";
  for (const char* call : {"gethostname", "gethostbyname"}) {
    gate::FailNext(call, 11001);
    LogHostAddress(1);
  }
  LogHostAddress(0xBEEF);
  EXPECT_EQ(ServiceMessages(), (Lines{"Hostname: beef", "Host IP: 10.1.2.3"}));
}

TEST_F(AddressDumps, EachRowOfTheAddressTableIsLogged) {
  Put("adapters.txt",
      std::string(kWireless) + "eth9 down index=12 address=10.1.1.1/30\n" + kLoopbackOnly);
  EXPECT_EQ(DumpIpAddrTable(), 0U);
  const Lines lines = ServiceMessages();
  EXPECT_EQ(lines.front(), "\tNum Entries: 3");
  EXPECT_TRUE(InOrder(
      lines,
      {"\tInterface Index[ 0]:\t  4", "\tIP Address[0]:     \t10.0.0.7",
       "\tSubnet Mask[0]:    \t255.0.0.0", "\tBroadCast[0]:      \t1.0.0.0 ( 1)",
       "\tReassembly size[0]:\t65535", "\tType and State[0]:", "\tPrimary IP Address",
       "\tDynamic IP Address", "\tInterface Index[ 1]:\t  12", "\tIP Address[1]:     \t10.1.1.1",
       "\tSubnet Mask[1]:    \t255.255.255.252", "\tType and State[1]:", "\tPrimary IP Address",
       "\tAddress is on disconnected interface", "\tIP Address[2]:     \t127.0.0.1"}));
  EXPECT_EQ(CountOf(Messages(), "Dynamic"), 1U);
}

TEST_F(AddressDumps, FailedAddressTableIsLogged) {
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  const struct {
    const char* call;
    std::uint64_t skip;
    const char* line;
  } kRows[] = {
      {"GetIpAddrTable", 1, "GetIpAddrTable failed with error 50"},
      {"HeapAlloc", 0, "Memory allocation failed for GetIpAddrTable"},
      {"HeapAlloc", 1, "Memory allocation failed for GetIpAddrTable"},
  };
  for (const auto& row : kRows) {
    StartServiceLog();
    gate::FailNext(row.call, 50, row.skip);
    EXPECT_EQ(DumpIpAddrTable(), 1U);
    EXPECT_EQ(ServiceMessages().front(), row.line);
  }
  gate::FailEvery("GetIpAddrTable", 122);  // too small again
  EXPECT_EQ(DumpIpAddrTable(), 1U);
}

class WlanProfiles : public InventoryTest {
 protected:
  void SetUp() override {
    InventoryTest::SetUp();
    Put("wlan.txt", "1\n9\n");
    Put("wlan_profiles.txt",
        "0 1 Office <a/>\n0 2 Home <bb>two words</bb>\n1 3 Far <c/>\n0 0 Empty\n");
  }
};

TEST_F(WlanProfiles, TextIsCutAtTheEndOfItsRoom) {
  const std::u16string whole = u"<a/><bb>two words</bb><c/>";
  // Exactly as much memory as the room, so that a sanitizer sees a unit too much.
  for (std::size_t room = 0; room <= whole.size() + 3; ++room) {
    const std::unique_ptr<char16_t[]> text(new char16_t[room]);
    std::fill_n(text.get(), room, u'!');
    EXPECT_EQ(CollectWlanProfiles({text.get(), room}), 0U);
    if (room == 0) continue;
    const std::u16string kept = whole.substr(0, room - 1);
    EXPECT_EQ(std::u16string(text.get(), kept.size() + 1), kept + u'\0') << room;
  }
}

TEST_F(WlanProfiles, InterfacesAndProfilesAreLogged) {
  char16_t text[64];
  EXPECT_EQ(CollectWlanProfiles(text), 0U);
  EXPECT_EQ(WmiMessages(), (Lines{"WLAN_INTERFACE_INFO_LIST for this system",
                                  "Num Entries: 2",
                                  "Current Index: 0",
                                  "  Interface Index[0]:\t 0",
                                  "{00005754-4C41-4E00-8000-000000000000}",
                                  "  Interface State[0]:\t Connected",
                                  "WLAN_PROFILE_INFO_LIST for this interface",
                                  "  Num Entries: 3",
                                  "  Flags[0]:\t    0x1",
                                  "   Group Policy",
                                  "  Flags[1]:\t    0x2",
                                  "   Per User Profile",
                                  "  Flags[2]:\t    0x0",
                                  "  Interface Index[1]:\t 1",
                                  "{00005754-4C41-4E00-8000-000000000001}",
                                  "  Interface State[1]:\t Unknown state 9",
                                  "WLAN_PROFILE_INFO_LIST for this interface",
                                  "  Num Entries: 1",
                                  "  Flags[0]:\t    0x3",
                                  "   Group Policy",
                                  "   Per User Profile"}));
}

TEST_F(WlanProfiles, FailedCallIsLoggedAndTheHandleIsClosed) {
  const struct {
    const char* call;
    const char* line;
    const char16_t* text;
    std::uint32_t result = 1;
  } kRows[] = {
      {"WlanOpenHandle", "WlanOpenHandle failed with error: 31", u"before"},
      {"WlanEnumInterfaces", "WlanEnumInterfaces failed with error: 31", u"before"},
      {"WlanGetProfileList", "WlanGetProfileList failed with error: 31", u"<c/>"},
      {"WlanGetProfile", "WlanGetProfile failed with error: 31", u"<bb>two words</bb><c/>"},
      {"StringFromGUID2", "", u"<a/><bb>two words</bb><c/>", 0},
      {"WlanCloseHandle", "  Num Entries: 1", u"<a/><bb>two words</bb><c/>", 0},
  };
  for (const auto& row : kRows) {
    char16_t text[64] = u"before";
    gate::Arm();
    gate::FailNext(row.call, 31);
    EXPECT_EQ(CollectWlanProfiles(text), row.result) << row.call;
    EXPECT_EQ(std::u16string(text), row.text) << row.call;
    EXPECT_TRUE(InOrder(WmiMessages(), {row.line}));
    EXPECT_EQ(CountCalls("WlanCloseHandle"), &row == kRows ? 0U : 1U);
  }
}

}  // namespace
}  // namespace stewardry
