// Finding and opening the mailbox device.
#include <gtest/gtest.h>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

class Device : public MailboxTest {
 protected:
  void TearDown() override {
    gInterruptDevice->Reset(platform::InvalidHandleValue());
    MailboxTest::TearDown();
  }
};

TEST_F(Device, NoDriverIsSaidAndLeavesTheHandleInvalid) {
  firmware_.reset();
  EXPECT_EQ(OpenOrrinDevice(kRequestMode), 1U);
  EXPECT_TRUE(Logged("No device interfaces present"));
  EXPECT_FALSE(*gRequestDevice);
}

TEST_F(Device, ASecondOpenLeavesTheHandleAloneAndTheOtherModeIsAnother) {
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
}

TEST_F(Device, OfTwoInterfacesTheOneEnumeratedLastIsOpened) {
  // A socket that sorts before the firmware's and that nobody listens on: opening it would fail.
  const int silent = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (lab() + "/mailbox/aaa").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(OpenOrrinDevice(kRequestMode), 0U);
  ::close(silent);
}

TEST_F(Device, EachFailingStepHasItsLineAndOpensNothing) {
  struct Row {
    const char* call;
    std::uint64_t skip;
    std::uint32_t error;
    const char* line;
  };
  constexpr Row kRows[] = {
      {"SetupDiGetClassDevsA", 0, 5, "SetupDiGetClassDevs failed with error: 5"},
      {"SetupDiGetDeviceInterfaceDetailA", 0, 13,
       "SetupDiGetDeviceInterfaceDetail failed with error: 13"},
      {"SetupDiGetDeviceInterfaceDetailA", 1, 13, "Error in SetupDiGetDeviceInterfaceDetail"},
      {"SetupDiEnumDeviceInterfaces", 1, 31, "No device interfaces present"},
      {"CreateFileA", 0, 32,
       "Failed in open device \\\\?\\GLOBALROOT\\Device\\000000c8 with error: 32"},
  };
  for (const Row& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, row.error, row.skip);
    EXPECT_EQ(OpenOrrinDevice(kRequestMode), 1U) << row.call;
    EXPECT_TRUE(Logged(row.line)) << row.line << "\n" << Messages();
    EXPECT_FALSE(*gRequestDevice);
    const auto trace = gate::Trace();
    if (row.skip + (row.call[0] == 'C') > 0) {
      EXPECT_NE(std::find(trace.begin(), trace.end(), "SetupDiDestroyDeviceInfoList()"),
                trace.end());
    }
  }
}

}  // namespace
}  // namespace stewardry
