// The interfaces and addresses of a network namespace and of the lab's file, and the wireless
// interfaces.
#include "platform/network.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/wlan.h"
#include "tests/lab_folder_fixture.h"
#include "tests/own_network.h"

namespace platform {
namespace {

using LinuxNetworkTest = LabTest;

// Each list in a block that is one byte too small, and in one that is just large enough.
TEST_F(LinuxNetworkTest, ListIsWrittenInABlockThatHoldsIt) {
  Put("adapters.txt", "eth0 speed=5 dynamic address=10.0.0.1/8 address=10.0.0.2/8 dns=1.1.1.1\n" +
                          std::string(300, 'x') + " gateway=10.9.9.9 address=10.3.0.1/16\n");
  using Fill = std::uint32_t (*)(void*, std::uint32_t*);
  const Fill addresses = [](void* block, std::uint32_t* size) {
    return GetAdaptersAddresses(0xA6, block, size);
  };
  for (const Fill fill : {Fill{GetIfTable}, Fill{GetAdaptersInfo}, addresses}) {
    std::uint32_t needed = 0;
    const std::uint32_t tooSmall = fill(nullptr, &needed);
    EXPECT_EQ(tooSmall, fill == GetIfTable ? kErrorInsufficientBuffer : kErrorBufferOverflow);
    std::uint32_t less = needed - 1;
    std::string block(needed + 1, '#');
    EXPECT_EQ(fill(block.data(), &less), tooSmall);
    EXPECT_EQ(less, needed);
    EXPECT_EQ(block, std::string(needed + 1, '#'));
    EXPECT_EQ(fill(block.data(), &needed), 0U);
    EXPECT_EQ(block.back(), '#');
  }
}

TEST_F(LinuxNetworkTest, OwnNamespaceHasItsLoopbackInterfaceOnly) {
  if (!EnterOwnNetwork()) GTEST_SKIP() << "this user may not make a network namespace";
  std::uint32_t flags = 7;
  EXPECT_TRUE(InternetGetConnectedState(&flags)) << "the loopback interface is up";
  EXPECT_EQ(flags, 2U);
  std::vector<char> block(1 << 16);
  auto size = static_cast<std::uint32_t>(block.size());
  ASSERT_EQ(GetAdaptersAddresses(0xA6, block.data(), &size), 0U);
  const auto list = ReadAdaptersAddresses(block.data());
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].operStatus, 1U);
  EXPECT_EQ(list[0].unicast, std::vector<std::uint32_t>{0x0100007F});
  EXPECT_EQ(list[0].prefixLength, 8);
  EXPECT_TRUE(list[0].physicalAddress.empty());
}

TEST_F(LinuxNetworkTest, TextIsCutBetweenCharacters) {
  char text[8];
  EXPECT_EQ(WideToAnsi(u"a\u00e9b", 3, text, 3), 1U);
  EXPECT_STREQ(text, "a");
  EXPECT_EQ(WideToAnsi(u"a\u00e9b", 3, text, 4), 3U);
  EXPECT_STREQ(text, "a\xC3\xA9");
}

TEST_F(LinuxNetworkTest, WirelessServiceNeedsAWirelessInterface) {
  WlanHandle handle = nullptr;
  Put("adapters.txt", "eth0\n");
  EXPECT_EQ(WlanOpenHandle(&handle), static_cast<std::uint32_t>(kErrorServiceNotActive));
  Put("adapters.txt", "eth0\nwlan0 wireless\nwlan1 wireless down\n");
  ASSERT_EQ(WlanOpenHandle(&handle), 0U);
  WlanInterfaceList list;
  EXPECT_EQ(WlanEnumInterfaces(handle, &list), 0U);
  EXPECT_EQ(list.states, (std::vector<std::uint32_t>{1, 4}));
}

}  // namespace
}  // namespace platform
