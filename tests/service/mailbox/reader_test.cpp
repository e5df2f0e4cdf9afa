// The reader thread between a firmware and the dispatcher.
#include "service/mailbox/reader.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "service/mailbox/dispatcher.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

std::mutex gLock;
std::vector<std::string>* gPayloads = nullptr;

void Keep(const std::uint8_t* payload, std::uint32_t length) {
  std::lock_guard guard(gLock);
  gPayloads->emplace_back(reinterpret_cast<const char*>(payload), length);
}
constexpr FirmwareCommand kTable[] = {{0x08, "keep", nullptr, false, Keep}};

class Reader : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    gPayloads = &payloads_;
    SetFirmwareCommands(kTable);
  }
  void TearDown() override {
    if (reader_) EndThread(&reader_);
    MailboxTest::TearDown();
  }
  void Start() { reader_ = platform::CreateThread(intThreadFunction, nullptr); }
  void StartAndArm() {
    Start();
    ASSERT_TRUE(firmware_->AwaitKind(lablink::kRead, 10));
  }
  std::size_t Received() {
    std::lock_guard guard(gLock);
    return payloads_.size();
  }
  // The reader ends for good, with its two lines.
  void ExpectEnd(const std::string& line) {
    EXPECT_EQ(platform::WaitForSingleObject(reader_, 10'000), 0U);
    reader_.Reset();
    EXPECT_TRUE(Logged(line)) << line << "\n" << Messages();
    EXPECT_TRUE(Logged("intThreadFunction ln: 658 Before RunServer bstatus 0"));
    EXPECT_FALSE(*gInterruptDevice);
  }

  std::vector<std::string> payloads_;
  platform::Thread reader_;
};

TEST_F(Reader, FramesArriveWholeInOrderWithTenReadsOutstanding) {
  StartAndArm();
  EXPECT_TRUE(Eventually([&] { return Logged("intThreadFunction before Processread"); }));
  for (int i = 0; i < 200; ++i)
    firmware_->SendFrame(std::string(static_cast<std::size_t>(i), 'f'), 0x08);
  firmware_->SendFrame(std::string(131070, 'F'), 0x08);
  ASSERT_TRUE(Eventually([&] { return Received() == 201; }));
  for (std::size_t i = 0; i < 200; ++i) EXPECT_EQ(payloads_[i], std::string(i, 'f'));
  EXPECT_EQ(payloads_[200].size(), 131070U);
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kRead, 211));  // each slot was armed again
}

TEST_F(Reader, EmptyShortAndUnknownFramesAreSaidAndPassed) {
  StartAndArm();
  firmware_->SendRaw("");
  firmware_->SendRaw("\x08");
  firmware_->SendFrame("", 0x14);
  firmware_->SendFrame("ok", 0x08);
  ASSERT_TRUE(Eventually([&] { return Received() == 1; }));
  EXPECT_TRUE(Logged("Frame of 1 bytes carries no command"));
  EXPECT_TRUE(Logged("Unknown Command received 0x14"));
  EXPECT_EQ(CountOf(Messages(), "carries no command"), 1U);  // 0 bytes are not dispatched
}

TEST_F(Reader, AFailedReadEndsItAndLeavesNothingOpen) {
  StartAndArm();
  firmware_->FailRead(1167);
  ExpectEnd("GetQueuedCompletionStatus failed 1167");
}

TEST_F(Reader, ADeviceThatGoesAwayEndsIt) {
  StartAndArm();
  firmware_->Drop();
  ExpectEnd("GetQueuedCompletionStatus failed 1167");
}

TEST_F(Reader, EachFailingStepEndsItWithItsLine) {
  struct Row {
    const char* call;
    std::uint64_t skip;
    std::uint32_t error;
    const char* line;
  };
  constexpr Row kRows[] = {
      {"CreateFileA", 0, 5, "Cannot open device 5"},
      {"CreateIoCompletionPort", 0, 87, "Cannot open completion port 87"},
      {"ReadFile", 0, 21, "Asynchronous Read command failed 21"},
      {"ReadFile", 7, 21, "Asynchronous Read command failed 21"},
      {"ReadFile", 3, gate::kFinishAtOnce, "Asynchronous Read command failed"},
      {"GetQueuedCompletionStatus", 0, 735, "GetQueuedCompletionStatus failed 735"},
  };
  for (const Row& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, row.error, row.skip);
    Start();
    if (row.error == gate::kFinishAtOnce) {
      EXPECT_EQ(platform::WaitForSingleObject(reader_, 10'000), 0U);
      reader_.Reset();
      EXPECT_NE(Messages().find(row.line), std::string::npos);
    } else {
      ExpectEnd(row.line);
    }
  }
}

TEST_F(Reader, ASlotThatCannotBeArmedAgainEndsItWithItsOwnLine) {
  StartAndArm();
  gate::FailNext("ReadFile", 21);
  firmware_->SendFrame("last", 0x08);
  ExpectEnd("Asynchronous read command failed 21");
  EXPECT_EQ(payloads_, std::vector<std::string>{"last"});
}

TEST_F(Reader, EndedFromOutsideItCancelsItsReadsAndClosesItsHandle) {
  StartAndArm();
  EndThread(&reader_);
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kClose));
  EXPECT_FALSE(*gInterruptDevice);
}

}  // namespace
}  // namespace stewardry
