// The interfaces and addresses of this host, of an empty network namespace, and of the lab's file.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/linux/gate.h"
#include "platform/network.h"
#include "tests/lab_folder_fixture.h"

namespace platform {
namespace {

constexpr std::uint32_t kLoopback = 0x0100007F;

class LinuxNetworkTest : public LabTest {
 protected:
  void TearDown() override {
    for (const char* name : {"adapters.txt", "connected.txt"})
      std::filesystem::remove(LabPath(name));
    LabTest::TearDown();
  }
  static void Put(const char* name, const std::string& text) {
    std::ofstream(LabPath(name)) << text;
  }
  static std::vector<AdapterAddresses> Addresses() {
    std::vector<char> block(1 << 20);
    auto size = static_cast<std::uint32_t>(block.size());
    if (GetAdaptersAddresses(0xA6, block.data(), &size) != 0) return {};
    return ReadAdaptersAddresses(block.data());
  }
};

// Each list in a block that is one byte too small, and in one that is just large enough.
TEST_F(LinuxNetworkTest, BlockIsWrittenPastItsEnd) {
  Put("adapters.txt", "eth0 speed=5 dynamic address=10.0.0.1/8 address=10.0.0.2/8 dns=1.1.1.1\n" +
                          std::string(300, 'x') + " gateway=10.9.9.9 address=10.3.0.1/16\n");
  const struct {
    const char* call;
    std::uint32_t (*fill)(void*, std::uint32_t*);
    std::uint32_t tooSmall;
  } kCases[] = {
      {"GetIfTable", GetIfTable, kErrorInsufficientBuffer},
      {"GetAdaptersInfo", GetAdaptersInfo, kErrorBufferOverflow},
      {"GetAdaptersAddresses",
       [](void* block, std::uint32_t* size) { return GetAdaptersAddresses(0xA6, block, size); },
       kErrorBufferOverflow}};
  for (const auto& testCase : kCases) {
    std::uint32_t needed = 0;
    ASSERT_EQ(testCase.fill(nullptr, &needed), testCase.tooSmall) << testCase.call;
    std::uint32_t less = needed - 1;
    std::vector<char> block(less, '#');
    EXPECT_EQ(testCase.fill(block.data(), &less), testCase.tooSmall) << testCase.call;
    EXPECT_EQ(less, needed);
    EXPECT_EQ(std::count(block.begin(), block.end(), '#'), static_cast<long>(block.size()));
    block.assign(needed + 1, '#');
    EXPECT_EQ(testCase.fill(block.data(), &needed), 0U) << testCase.call;
    EXPECT_EQ(block.back(), '#');
    gate::FailNext(testCase.call, 50);
    EXPECT_EQ(testCase.fill(block.data(), &needed), 50U);
  }
}

TEST_F(LinuxNetworkTest, EntriesComeBackChanged) {
  Put("adapters.txt",
      "lo loopback index=1 address=127.0.0.1/8\n"
      "wlan0 index=9 wireless down\n"
      "eth0 index=4 speed=4000000000 dynamic mac=02:00:00:00:00:01 address=10.0.0.1/20 "
      "address=10.0.0.2/8 dns=1.1.1.1 dns=8.8.8.8 gateway=10.0.0.254 what=ever =\n"
      "\n"
      "bridge index=3\n");
  const auto list = Addresses();
  ASSERT_EQ(list.size(), 3U) << "an interface that is up without an IPv4 address isn't IPv4's";
  EXPECT_EQ(list[0].adapterName, "eth0");
  EXPECT_EQ(list[0].ifIndex, 4U);
  EXPECT_EQ(list[0].ifType, 6U);
  EXPECT_EQ(list[0].operStatus, 1U);
  EXPECT_EQ(list[0].unicast, (std::vector<std::uint32_t>{0x0100000A, 0x0200000A}));
  EXPECT_EQ(list[0].prefixLength, 20);
  EXPECT_EQ(list[0].dnsServers, (std::vector<std::uint32_t>{0x01010101, 0x08080808}));
  EXPECT_EQ(list[0].gateways, std::vector<std::uint32_t>{0xFE00000A});
  EXPECT_EQ(list[0].physicalAddress, (std::vector<std::uint8_t>{2, 0, 0, 0, 0, 1}));
  EXPECT_EQ(list[1].adapterName, "wlan0");
  EXPECT_EQ(list[1].operStatus, 2U);
  EXPECT_EQ(list[1].ifType, 71U);
  EXPECT_EQ(list[2].adapterName, "lo") << "last, whatever its index";
  EXPECT_EQ(list[2].ifType, 24U);
  std::vector<char> block(1 << 16);
  auto size = static_cast<std::uint32_t>(block.size());
  ASSERT_EQ(GetIfTable(block.data(), &size), 0U);
  ASSERT_EQ(IfTableRows(block.data()), 4U);
  EXPECT_EQ(IfTableRow(block.data(), 1).description, "eth0");
  EXPECT_EQ(IfTableRow(block.data(), 1).speed, 4000000000U);
  EXPECT_EQ(IfTableRow(block.data(), 3).description, "lo");
  ASSERT_EQ(GetAdaptersInfo(block.data(), &size), 0U);
  const auto adapters = ReadAdaptersInfo(block.data());
  ASSERT_EQ(adapters.size(), 3U);
  EXPECT_FALSE(adapters[0].dhcpEnabled);
  EXPECT_TRUE(adapters[1].dhcpEnabled);
  Put("adapters.txt", "");
  EXPECT_NE(GetAdaptersInfo(block.data(), &size), 0U) << "an empty list is none";
  EXPECT_NE(GetAdaptersAddresses(0xA6, block.data(), &size), 0U);
}

// The kernel is asked by another road here than in the stand-in.
TEST_F(LinuxNetworkTest, AddressOfThisHostIsMissing) {
  ifaddrs* first = nullptr;
  ASSERT_EQ(::getifaddrs(&first), 0);
  const auto list = Addresses();
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in address, mask;
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    std::memcpy(&mask, entry->ifa_netmask, sizeof mask);
    const auto found = std::find_if(list.begin(), list.end(), [&](const AdapterAddresses& adapter) {
      return adapter.ifIndex == ::if_nametoindex(entry->ifa_name);
    });
    ASSERT_NE(found, list.end()) << entry->ifa_name;
    EXPECT_EQ(std::count(found->unicast.begin(), found->unicast.end(), address.sin_addr.s_addr), 1);
    if (found->unicast.front() == address.sin_addr.s_addr) {
      EXPECT_EQ(found->prefixLength, std::popcount(mask.sin_addr.s_addr));
    }
  }
  ::freeifaddrs(first);
}

bool SwitchLoopbackOn() {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  const bool on = ::ioctl(socket, SIOCSIFFLAGS, &request) == 0;
  ::close(socket);
  return on;
}

TEST_F(LinuxNetworkTest, EmptyNamespaceShowsTheInterfacesOfAnother) {
  bool allowed = false;
  std::thread([&] {  // the namespace is that of one thread
    allowed = ::unshare(CLONE_NEWNET) == 0;
    if (!allowed) return;
    std::uint32_t flags = 7;
    EXPECT_FALSE(InternetGetConnectedState(&flags));
    EXPECT_EQ(flags, 0U);
    auto list = Addresses();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].operStatus, 2U);
    ASSERT_TRUE(SwitchLoopbackOn());
    EXPECT_TRUE(InternetGetConnectedState(&flags)) << "the loopback interface will do";
    EXPECT_EQ(flags, 2U);
    list = Addresses();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].operStatus, 1U);
    EXPECT_EQ(list[0].unicast, std::vector<std::uint32_t>{kLoopback});
    EXPECT_EQ(list[0].prefixLength, 8);
    EXPECT_TRUE(list[0].physicalAddress.empty());
  })
      .join();
  if (!allowed) GTEST_SKIP() << "this user may not make a network namespace";
}

TEST_F(LinuxNetworkTest, ConnectionStateIsNotTheLabs) {
  const struct {
    const char* text;
    bool connected;
    std::uint32_t flags;
  } kCases[] = {{"18\n", true, 18}, {"0", true, 0}, {"no\n", false, 0}, {"", false, 0}};
  for (const auto& testCase : kCases) {
    Put("connected.txt", testCase.text);
    std::uint32_t flags = 7;
    EXPECT_EQ(InternetGetConnectedState(&flags), testCase.connected) << testCase.text;
    EXPECT_EQ(flags, testCase.flags) << testCase.text;
  }
  std::filesystem::remove(LabPath("connected.txt"));
  Put("adapters.txt", "eth0 down\n");
  std::uint32_t flags = 7;
  EXPECT_FALSE(InternetGetConnectedState(&flags));
  Put("adapters.txt", "eth0\n");
  gate::FailNext("InternetGetConnectedState", 31);
  EXPECT_FALSE(InternetGetConnectedState(&flags));
}

TEST_F(LinuxNetworkTest, TextIsCutInsideACharacterOrUnterminated) {
  const struct {
    std::u16string text;
    std::size_t size;
    std::string ansi;
  } kCases[] = {{u"ab", 3, "ab"},       {u"ab", 2, "a"},
                {u"a\u00e9b", 3, "a"},  {u"a\u00e9b", 4, "a\xC3\xA9"},
                {u"\U0001F600", 4, ""}, {u"ab", 1, ""}};
  for (const auto& testCase : kCases) {
    std::string buffer(8, '#');
    EXPECT_EQ(WideToAnsi(testCase.text.data(), testCase.text.size(), buffer.data(), testCase.size),
              testCase.ansi.size());
    EXPECT_STREQ(buffer.c_str(), testCase.ansi.c_str());
    EXPECT_EQ(buffer[testCase.size], '#');
  }
  char nothing = '#';
  EXPECT_EQ(WideToAnsi(u"a", 1, &nothing, 0), 0U);
  EXPECT_EQ(nothing, '#');
}

TEST_F(LinuxNetworkTest, DomainOverrunsItsBuffer) {
  char name[256] = {};
  std::uint32_t size = sizeof name;
  ASSERT_TRUE(GetComputerDnsDomain(name, &size));
  EXPECT_EQ(size, std::strlen(name));
  std::uint32_t none = 0;
  char untouched = '#';
  EXPECT_FALSE(GetComputerDnsDomain(&untouched, &none));
  EXPECT_EQ(LastError(), static_cast<std::uint32_t>(kErrorMoreData));
  EXPECT_EQ(none, size + 1);
  EXPECT_EQ(untouched, '#');
}

}  // namespace
}  // namespace platform
