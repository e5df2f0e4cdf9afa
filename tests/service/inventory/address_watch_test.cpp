// The watch on the host's addresses, and the dumps.
#include "service/inventory/address_watch.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "platform/address_change.h"
#include "platform/thread.h"
#include "service/inventory/address_dumps.h"
#include "tests/service/inventory/report_test_base.h"

namespace stewardry {
namespace {

using platform::gate::FailEvery;
using platform::gate::FailNext;

constexpr std::uint32_t kEthernetAddress = 0x0501A8C0;  // kEthernet's 192.168.1.5
constexpr std::uint32_t kWirelessAddress = 0x0700000A;  // kWireless' 10.0.0.7

class AddressWatch : public ReportTest {
 protected:
  void SetUp() override {
    ReportTest::SetUp();
    gLastReportedAddress = 0;
    gIpChangeEntry = 0;
    Put("connected.txt", "1");
  }
  void TearDown() override {
    UnregisterNetworkEvent();
    ReportTest::TearDown();
  }
  static void Inject(const std::string& text) {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    platform::LabPath("addresses").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::sendto(socket, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&address),
                       sizeof address),
              static_cast<ssize_t>(text.size()));
    ::close(socket);
  }
};

TEST_F(AddressWatch, ANewAddressIsKeptBackOrAnOldOneTold) {
  struct Row {
    const char* fault;
    std::string adapters;
    std::uint32_t type;
    std::size_t sent;
    std::uint32_t address;  // last reported
  };
  const Row kRows[] = {
      {"the loopback address", kLoopbackOnly, 0, 0, 0},
      {"a new address", kEthernet, 0, 2, kEthernetAddress},
      {"the same address", kEthernet, 2, 0, kEthernetAddress},
      // The notification's type is the kind of search: 1 asks for an adapter that isn't Ethernet.
      {"a search for the wireless adapter", std::string(kEthernet) + kWireless, 1, 2,
       kWirelessAddress},
      {"back to loopback", kLoopbackOnly, 0, 0, kWirelessAddress},
  };
  std::size_t before = 0;
  for (const Row& row : kRows) {
    Put("adapters.txt", row.adapters);
    IpInterfaceChangeCallback(nullptr, nullptr, row.type);
    EXPECT_EQ(Sent().size() - before, row.sent) << row.fault;
    before = Sent().size();
    EXPECT_EQ(gLastReportedAddress.load(), row.address) << row.fault;
    EXPECT_EQ(gIpChangeEntry.load(), 0U);
    EXPECT_EQ(ServiceMessages().back(), "Received");
  }
  EXPECT_EQ(Sent(), (Codes{kWriteBooted, kWriteIp, kWriteBooted, kWriteIp}));
  const auto ip = Message<IPInfo>(1);
  EXPECT_EQ(ip.ipAddress, kEthernetAddress);
  EXPECT_EQ(ip.localPort, 623U);
  EXPECT_EQ(ip.remoteAddress + ip.remotePort, 0U);
  EXPECT_EQ(ip.endMarker, 0xFFFF);
  EXPECT_TRUE(InOrder(ServiceMessages(), {"Ipchange received 501a8c0", "Received"}));
}

TEST_F(AddressWatch, ASecondEntryReportsTooOrLeavesTheWatchSilent) {
  Put("adapters.txt", kEthernet);
  firmware_->SetVerdict(kWriteIp, FirmwarePeer::kHold);
  std::thread first([] { IpInterfaceChangeCallback(nullptr, nullptr, 0); });
  ASSERT_TRUE(firmware_->Await(kWriteIp));
  IpInterfaceChangeCallback(nullptr, nullptr, 0);
  IpInterfaceChangeCallback(nullptr, nullptr, 0);
  EXPECT_EQ(gIpChangeEntry.load(), 3U);
  EXPECT_EQ(Sent().size(), 2U);
  platform::CancelIoEx(*gRequestDevice, nullptr);
  first.join();
  EXPECT_EQ(gIpChangeEntry.load(), 0U);
  firmware_->SetVerdict(kWriteIp, 0);
  Put("adapters.txt", kWireless);
  IpInterfaceChangeCallback(nullptr, nullptr, 0);
  EXPECT_EQ(gLastReportedAddress.load(), kWirelessAddress);
}

// A thread ended in the midst of its report must not keep the count.
TEST_F(AddressWatch, AnEndedThreadLeavesTheWatchSilent) {
  Put("adapters.txt", kEthernet);
  firmware_->SetVerdict(kWriteBooted, FirmwarePeer::kHold);
  platform::Thread thread = platform::CreateThread(
      [](void*) -> std::uint32_t { return IpInterfaceChangeCallback(nullptr, nullptr, 0), 0; },
      nullptr);
  ASSERT_TRUE(firmware_->Await(kWriteBooted));
  platform::TerminateThread(thread, 0);
  EXPECT_TRUE(Eventually([] { return gIpChangeEntry.load() == 0; }));
  EXPECT_EQ(gLastReportedAddress.load(), 0U);
}

TEST_F(AddressWatch, TheWatchHearsNothingOrOutlivesItsHandle) {
  Put("adapters.txt", kLoopbackOnly);
  FailNext("NotifyIpInterfaceChange", 8);
  EXPECT_EQ(RegisterNetworkEvent(), 0U);
  EXPECT_EQ(gIpChangeHandle.load(), nullptr);
  EXPECT_EQ(RegisterNetworkEvent(), 1U);
  EXPECT_EQ(RegisterNetworkEvent(), 0U) << "a second handle would be lost";
  EXPECT_EQ(ServiceMessages(), std::vector<std::string>{"Success RegisterNetworkEvent"});
  Put("adapters.txt", kEthernet);
  for (const char* word : {"what", "change"}) Inject(word);
  EXPECT_TRUE(Eventually([] { return gLastReportedAddress.load() == kEthernetAddress; }));
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  Inject("add");
  EXPECT_TRUE(Eventually([] { return gLastReportedAddress.load() == kWirelessAddress; }));
  UnregisterNetworkEvent();
  EXPECT_EQ(ServiceMessages().back(), "CancelMibChangeNotify2 Passed");
  UnregisterNetworkEvent();
  EXPECT_EQ(CountCalls("CancelMibChangeNotify2"), 1U);
  EXPECT_EQ(RegisterNetworkEvent(), 1U) << "a watch can come again";
}

// ---- Dumps

class AddressDumps : public AddressWatch {};

TEST_F(AddressDumps, TheHostsNameOrAddressIsTakenForAnother) {
  LogHostAddress(0xBEEF);
  const std::vector<std::string> lines = ServiceMessages();
  if (!lines.empty()) {  // a host whose name has no address says nothing
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], "Hostname: beef");
    EXPECT_EQ(lines[1].find("Host IP: "), 0U);
  }
  StartServiceLog();
  for (const char* call : {"gethostname", "gethostbyname"}) {
    FailNext(call, 11001);
    LogHostAddress(1);
  }
  EXPECT_TRUE(ServiceMessages().empty());
}

TEST_F(AddressDumps, ARowOfTheAddressTableIsLostOrWrong) {
  Put("adapters.txt",
      std::string(kEthernet) + kWireless + "eth9 down index=12 address=10.1.1.1/30\n");
  EXPECT_EQ(DumpIpAddrTable(), 0U);
  EXPECT_EQ(ServiceMessages(),
            (std::vector<std::string>{"\tNum Entries: 3",
                                      "\tInterface Index[ 0]:\t  3",
                                      "\tIP Address[0]:     \t192.168.1.5",
                                      "\tSubnet Mask[0]:    \t255.255.255.0",
                                      "\tBroadCast[0]:      \t1.0.0.0 ( 1)",
                                      "\tReassembly size[0]:\t65535",
                                      "\tType and State[0]:",
                                      "\tPrimary IP Address",
                                      "\tInterface Index[ 1]:\t  4",
                                      "\tIP Address[1]:     \t10.0.0.7",
                                      "\tSubnet Mask[1]:    \t255.0.0.0",
                                      "\tBroadCast[1]:      \t1.0.0.0 ( 1)",
                                      "\tReassembly size[1]:\t65535",
                                      "\tType and State[1]:",
                                      "\tPrimary IP Address",
                                      "\tDynamic IP Address",
                                      "\tInterface Index[ 2]:\t  12",
                                      "\tIP Address[2]:     \t10.1.1.1",
                                      "\tSubnet Mask[2]:    \t255.255.255.252",
                                      "\tBroadCast[2]:      \t1.0.0.0 ( 1)",
                                      "\tReassembly size[2]:\t65535",
                                      "\tType and State[2]:",
                                      "\tPrimary IP Address",
                                      "\tAddress is on disconnected interface"}));
}

TEST_F(AddressDumps, AFailedTableIsReadOrNotTold) {
  Put("adapters.txt", std::string(kEthernet) + kWireless);
  FailNext("GetIpAddrTable", 50, 1);
  EXPECT_EQ(DumpIpAddrTable(), 1U);
  const std::vector<std::string> lines = ServiceMessages();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "GetIpAddrTable failed with error 50");
  for (const std::uint64_t skip : {0u, 1u}) {
    StartServiceLog();
    FailNext("HeapAlloc", 8, skip);
    EXPECT_EQ(DumpIpAddrTable(), 1U);
    EXPECT_EQ(ServiceMessages(),
              std::vector<std::string>{"Memory allocation failed for GetIpAddrTable"});
  }
  // It says "too small" again: what was asked for didn't help.
  FailEvery("GetIpAddrTable", 122);
  EXPECT_EQ(DumpIpAddrTable(), 1U);
}

constexpr char kProfiles[] =
    "0 1 Office <a/>\n0 2 Home <bb>two words</bb>\n1 3 Far <c/>\n0 0 Empty\n";

TEST_F(AddressDumps, AProfilesTextIsWrittenPastItsRoom) {
  Put("wlan.txt", "1\n9\n");
  Put("wlan_profiles.txt", kProfiles);
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

TEST_F(AddressDumps, AWirelessInterfaceOrItsProfilesArentTold) {
  Put("wlan.txt", "1\n9\n");
  Put("wlan_profiles.txt", kProfiles);
  char16_t text[64] = u"what stood there before";
  EXPECT_EQ(CollectWlanProfiles(text), 0U);
  EXPECT_EQ(WmiMessages(), (std::vector<std::string>{"WLAN_INTERFACE_INFO_LIST for this system",
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

TEST_F(AddressDumps, AFailureOfOneWlanCallEndsTheOthersOrLeaksTheHandle) {
  struct Row {
    const char* call;
    const char* line;
    const char16_t* text;
    std::uint32_t result = 1;
  };
  constexpr Row kRows[] = {
      {"WlanOpenHandle", "WlanOpenHandle failed with error: 31", u"before"},
      {"WlanEnumInterfaces", "WlanEnumInterfaces failed with error: 31", u"before"},
      {"WlanGetProfileList", "WlanGetProfileList failed with error: 31", u"<c/>"},
      {"WlanGetProfile", "WlanGetProfile failed with error: 31", u"<bb>two words</bb><c/>"},
      {"StringFromGUID2", "", u"<a/><bb>two words</bb><c/>", 0},
      {"WlanCloseHandle", "  Num Entries: 1", u"<a/><bb>two words</bb><c/>", 0},
  };
  Put("wlan.txt", "1\n4\n");
  Put("wlan_profiles.txt", kProfiles);
  for (const Row& row : kRows) {
    char16_t text[64] = u"before";
    platform::gate::Arm();
    FailNext(row.call, 31);
    EXPECT_EQ(CollectWlanProfiles(text), row.result) << row.call;
    EXPECT_EQ(std::u16string(text), row.text) << row.call;
    EXPECT_TRUE(InOrder(WmiMessages(), {row.line}));
    EXPECT_EQ(CountCalls("WlanCloseHandle"), row.call == std::string("WlanOpenHandle") ? 0U : 1U);
  }
}

}  // namespace
}  // namespace stewardry
