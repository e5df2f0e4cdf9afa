#include <gtest/gtest.h>

#include <memory>

#include "platform/linux/lab/shared_region.h"
#include "service/mailbox/control_codes.h"
#include "tests/service/mailbox_fixture.h"
#include "tests/service/standby/log_ring.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kRequestRing = ControlCodeFor(Operation::kWriteLogBuffer).code;
constexpr std::uint32_t kReleaseRing = ControlCodeFor(Operation::kDeAllocateLogBuffer).code;

using FirmwareLogFaults = MailboxTest;

// A capture without its file leaves the ring as it was; any other failure loses at most text.
TEST_F(FirmwareLogFaults, FailedCallLosesTextOnly) {
  const auto ring = std::make_unique<LogRing>();
  FillRing(ring.get());
  gate::FailNth(1000, 31);
  UseRing(ring.get(), 2040, 3, true);
  CaptureLogBuffer();
  const std::uint64_t calls = gate::Calls();
  ASSERT_GT(calls, 20U);
  for (std::uint64_t n = 1; n <= calls; ++n) {
    gStandby->gLogFileCreated = 0;
    UseRing(ring.get(), 2040, 3, false);
    gate::FailNth(n, 112);
    CaptureLogBuffer();
    const bool opened = gate::Hit().find("_fsopen") != 0;
    EXPECT_EQ(ring->readIndex, opened ? 3U : 2040U) << gate::Hit();
  }
}

TEST_F(FirmwareLogFaults, RingOfTheFirmwareIsCapturedUntilItIsReleased) {
  OpenMailbox();
  gStandby->gLogBufferAddress = 4096;
  firmware_->SetVerdict(kRequestRing, 31);
  EXPECT_EQ(WriteLogBuffer(), 0U);
  EXPECT_EQ(gStandby->gLogBufferAddress.load(), 4096U) << "a failed request changes nothing";
  firmware_->SetVerdict(kRequestRing, 0);
  for (const char* noAddress : {"", "\1\1\1\1"}) {
    gStandby->gLogBufferAddress = 4096;
    firmware_->SetAnswer(kRequestRing, noAddress);
    EXPECT_EQ(WriteLogBuffer(), 0U);
    EXPECT_EQ(gStandby->gLogBufferAddress.load(), 0U);
    EXPECT_EQ(ServiceMessages().back(), "Invalid log buffer address");
  }
  firmware_->SetAnswer(kRequestRing, std::string(8, '\1'));
  ASSERT_EQ(WriteLogBuffer(), 0U);
  auto* ring = reinterpret_cast<LogRing*>(platform::SharedRegion(lablink::kLogRegion).data());
  ASSERT_EQ(gStandby->gLogBufferAddress.load(), reinterpret_cast<std::uint64_t>(ring));
  FillRing(ring);
  ring->readIndex = 0;
  ring->writeIndex = 2;
  CaptureLogBuffer();
  EXPECT_EQ(CapturedText(), Capture(0, 2, Lines(0, 2)));
  // A driver may leave the old address in its answer.
  firmware_->SetAnswer(kReleaseRing, std::string(8, '\1'));
  EXPECT_EQ(DeAllocateLogBuffer(), 0U);
  EXPECT_EQ(gStandby->gLogBufferAddress.load(), 0U);
}

}  // namespace
}  // namespace stewardry
