// The capture when its file or its memory fail it, and the ring as the firmware gives it.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include "platform/linux/mailbox_link.h"
#include "service/mailbox/control_codes.h"
#include "tests/service/mailbox/log_ring.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kAsk = ControlCodeFor(Operation::kWriteLogBuffer).code;
constexpr std::uint32_t kGiveBack = ControlCodeFor(Operation::kDeAllocateLogBuffer).code;

// A ring between two pages that must not be touched, against the one or the other.
class GuardedRing {
 public:
  explicit GuardedRing(bool atEnd) {
    block_ = ::mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto* inner = static_cast<char*>(block_) + kPage;
    ::mprotect(inner, kSize - 2 * kPage, PROT_READ | PROT_WRITE);
    ring_ = reinterpret_cast<LogRing*>(atEnd ? inner + kSize - 2 * kPage - sizeof(LogRing) : inner);
    FillRing(ring_);
  }
  GuardedRing(const GuardedRing&) = delete;
  GuardedRing& operator=(const GuardedRing&) = delete;
  ~GuardedRing() { ::munmap(block_, kSize); }
  LogRing* Ring() { return ring_; }

 private:
  static constexpr std::size_t kPage = 4096;
  static constexpr std::size_t kSize = (sizeof(LogRing) / kPage + 3) * kPage;
  void* block_;
  LogRing* ring_;
};

class FirmwareLogFaults : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    gLogBufferAddress = 0;
    gLogFileCreated = 0;
    gLogFirstCapture = 1;
  }
};

TEST_F(FirmwareLogFaults, TheMemoryBesideTheRingIsTouched) {
  for (const bool atEnd : {false, true}) {
    GuardedRing guarded(atEnd);
    LogRing* ring = guarded.Ring();
    std::memset(ring->entries, 'x', sizeof ring->entries);  // no line has an end
    for (const auto& [readIndex, writeIndex] : std::initializer_list<std::pair<int, int>>{
             {0, 2047}, {2047, 0}, {2047, 2047}, {2046, 2045}, {2048, 0}, {0, 2048}, {-1, -1}}) {
      UseRing(ring, static_cast<std::uint32_t>(readIndex), static_cast<std::uint32_t>(writeIndex),
              false);
      CaptureLogBuffer();
    }
  }
  EXPECT_EQ(CapturedText().find("xline"), std::string::npos);
}

TEST_F(FirmwareLogFaults, AFileThatCantBeOpenedTakesTheLinesOutOfTheRing) {
  GuardedRing guarded(true);
  for (const std::uint64_t opened : {0u, 1u}) {  // to be emptied, to be written
    gLogFileCreated = 0;
    UseRing(guarded.Ring(), 3, 9, true);
    gate::FailNext("_fsopen", 5, opened);
    CaptureLogBuffer();
    EXPECT_EQ(guarded.Ring()->readIndex, 3U);
    EXPECT_EQ(gLogFirstCapture.load(), 1U);
    EXPECT_EQ(CapturedText(), "");
  }
  CaptureLogBuffer();
  EXPECT_EQ(CapturedText(), Capture(0, 9, Lines(0, 6)));
}

TEST_F(FirmwareLogFaults, AFailingCallEndsTheProcessOrMovesTheIndexWrong) {
  GuardedRing guarded(true);
  gate::FailNth(1000, 31);
  UseRing(guarded.Ring(), 2040, 3, false);
  CaptureLogBuffer();
  const std::uint64_t calls = gate::Calls();
  ASSERT_GT(calls, 20U);
  for (std::uint64_t n = 1; n <= calls; ++n) {
    gLogFileCreated = 0;
    UseRing(guarded.Ring(), 2040, 3, false);
    gate::FailNth(n, 112);
    CaptureLogBuffer();
    const bool opened = gate::Hit().find("_fsopen") != 0;
    EXPECT_EQ(guarded.Ring()->readIndex, opened ? 3U : 2040U) << gate::Hit();
  }
}

TEST_F(FirmwareLogFaults, TheFirmwaresRingIsTakenForAnother) {
  OpenMailbox();
  firmware_->SetAnswer(kAsk, std::string(8, '\1'));
  ASSERT_EQ(WriteLogBuffer(), 0U);
  auto* ring = reinterpret_cast<LogRing*>(platform::SharedRegion(lablink::kLogRegion).data());
  ASSERT_EQ(gLogBufferAddress.load(), reinterpret_cast<std::uint64_t>(ring));
  FillRing(ring);
  ring->readIndex = 0;
  ring->writeIndex = 2;
  CaptureLogBuffer();
  EXPECT_EQ(CapturedText(), Capture(0, 2, Lines(0, 2)));
  // The old address in the answer, as a driver may leave it, isn't one to be read any more.
  firmware_->SetAnswer(kGiveBack, std::string(8, '\1'));
  EXPECT_EQ(DeAllocateLogBuffer(), 0U);
  EXPECT_EQ(gLogBufferAddress.load(), 0U);
  ring->writeIndex = 0;
}

TEST_F(FirmwareLogFaults, AnAnswerThatIsNoAddressIsReadFrom) {
  OpenMailbox();
  for (const char* answer : {"", "\1\1\1\1"}) {
    gLogBufferAddress = 4096;
    firmware_->SetAnswer(kAsk, answer);
    EXPECT_EQ(WriteLogBuffer(), 0U);
    EXPECT_EQ(gLogBufferAddress.load(), 0U);
  }
  EXPECT_EQ(CountOf(Messages(), "Invalid log buffer address\n"), 2U);
  gate::FailNext("DeviceIoControl", 21);
  EXPECT_EQ(DeAllocateLogBuffer(), 1U);
  EXPECT_TRUE(Logged("Asynchronous DeAllocateLogBuffer command failed with error: 21"));
  CloseOrrinDevice();
  EXPECT_EQ(WriteLogBuffer(), 1U);
  EXPECT_TRUE(Logged("Invalid Handle"));
}

}  // namespace
}  // namespace stewardry
