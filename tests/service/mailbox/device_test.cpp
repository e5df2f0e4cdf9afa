// Search and opening of the mailbox device.
#include <gtest/gtest.h>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

using Device = MailboxTest;

TEST_F(Device, EachModeHasOneHandle) {
  ASSERT_EQ(OpenOrrinDevice(kRequestMode), 0U);
  const auto raw = gRequestDevice->Raw();
  EXPECT_EQ(OpenOrrinDevice(kRequestMode), 0U);
  EXPECT_EQ(gRequestDevice->Raw(), raw);
  EXPECT_EQ(CountOf(Messages(), "Device open success"), 2U);
  EXPECT_EQ(OpenOrrinDevice(kInterruptMode), 0U);
  EXPECT_NE(gInterruptDevice->Raw(), raw);
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kOpen, 2));
  CloseOrrinDevice();
  CloseOrrinDevice();
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kClose, 1));
  EXPECT_FALSE(*gRequestDevice);
  gInterruptDevice->Reset(platform::InvalidHandleValue());
}

TEST_F(Device, LastEnumeratedInterfaceIsOpened) {
  // A socket that sorts before the firmware's and refuses connections.
  const int silent = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const SocketAddress address = UnixAddress(lab() + "/mailbox/aaa");
  ASSERT_EQ(::bind(silent, address.Get(), address.size), 0);
  EXPECT_EQ(OpenOrrinDevice(kRequestMode), 0U);
  ::close(silent);
}

TEST_F(Device, FailedStepIsLoggedAndOpensNothing) {
  const struct {
    const char* call;
    std::uint64_t skip;
    const char* line;
  } kRows[] = {
      {"SetupDiGetClassDevsA", 0, "SetupDiGetClassDevs failed with error: 5"},
      {"SetupDiGetDeviceInterfaceDetailA", 0,
       "SetupDiGetDeviceInterfaceDetail failed with error: 5"},
      {"SetupDiGetDeviceInterfaceDetailA", 1, "Error in SetupDiGetDeviceInterfaceDetail"},
      {"SetupDiEnumDeviceInterfaces", 1, "No device interfaces present"},
      {"CreateFileA", 0, "Failed in open device \\\\?\\GLOBALROOT\\Device\\000000c8 with error: 5"},
  };
  for (const auto& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, 5, row.skip);
    EXPECT_EQ(OpenOrrinDevice(kRequestMode), 1U) << row.call;
    EXPECT_TRUE(Logged(row.line)) << row.line << "\n" << Messages();
    EXPECT_FALSE(*gRequestDevice);
    EXPECT_EQ(CountCalls("SetupDiDestroyDeviceInfoList"), &row == kRows ? 0U : 1U) << row.line;
  }
}

}  // namespace
}  // namespace stewardry
