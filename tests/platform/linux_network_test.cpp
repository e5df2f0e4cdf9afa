// The interfaces and addresses of a network namespace, and texts in UTF-8.
#include "platform/network.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/lab_folder_fixture.h"
#include "tests/own_network.h"

namespace platform {
namespace {

using LinuxNetworkTest = LabTest;

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

}  // namespace
}  // namespace platform
