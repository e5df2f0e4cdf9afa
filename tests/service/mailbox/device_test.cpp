#include <gtest/gtest.h>

#include <tuple>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

using Device = MailboxTest;

TEST_F(Device, EachModeHasOneHandle) {
  ASSERT_EQ(OpenOrrinDevice(kRequestMode), 0U);
  const auto raw = gMailboxLink->gRequestDevice.Raw();
  EXPECT_EQ(OpenOrrinDevice(kRequestMode), 0U);
  EXPECT_EQ(gMailboxLink->gRequestDevice.Raw(), raw);
  EXPECT_EQ(OpenOrrinDevice(kInterruptMode), 0U);
  EXPECT_NE(gMailboxLink->gInterruptDevice.Raw(), raw);
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kOpen, 2));
  CloseOrrinDevice();
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kClose, 1));
  EXPECT_FALSE(gMailboxLink->gRequestDevice);
  gMailboxLink->gInterruptDevice.Reset(platform::InvalidHandleValue());
}

TEST_F(Device, FailedStepIsLoggedAndOpensNothing) {
  using Row = std::tuple<const char*, std::uint64_t, const char*>;
  std::size_t lists = 0;
  for (const auto& [call, skip, line] :
       {Row{"SetupDiGetClassDevsA", 0, "SetupDiGetClassDevs failed with error: 5"},
        Row{"SetupDiGetDeviceInterfaceDetailA", 0,
            "SetupDiGetDeviceInterfaceDetail failed with error: 5"},
        Row{"SetupDiGetDeviceInterfaceDetailA", 1, "Error in SetupDiGetDeviceInterfaceDetail"},
        Row{"SetupDiEnumDeviceInterfaces", 1, "No device interfaces present"},
        Row{"CreateFileA", 0,
            R"(Failed in open device \\?\GLOBALROOT\Device\000000c8 with error: 5)"}}) {
    gate::FailNext(call, 5, skip);
    EXPECT_EQ(OpenOrrinDevice(kRequestMode), 1U) << call;
    EXPECT_TRUE(Logged(line)) << line << "\n" << Messages();
    EXPECT_FALSE(gMailboxLink->gRequestDevice);
    EXPECT_EQ(CountCalls("SetupDiDestroyDeviceInfoList"), lists++) << line;
  }
}

}  // namespace
}  // namespace stewardry
