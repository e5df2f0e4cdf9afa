#include "service/mailbox/reader.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "service/diagnostics/deaf_entry.h"
#include "service/mailbox/control_codes.h"
#include "service/mailbox/dispatcher.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

std::mutex gLock;
std::vector<std::string> gPayloads;  // guarded by gLock

void KeepPayload(const std::uint8_t* payload, std::uint32_t length) {
  std::lock_guard guard(gLock);
  gPayloads.emplace_back(reinterpret_cast<const char*>(payload), length);
}
constexpr FirmwareCommand kTable[] = {{0x08, "keep", nullptr, false, KeepPayload}};

std::vector<std::string> Received() {
  std::lock_guard guard(gLock);
  return gPayloads;
}

class Reader : public MailboxTest {
 protected:
  void TearDown() override {
    if (reader_) {  // a thread that is ended from outside closes the device too
      EndThread(&reader_);
      EXPECT_TRUE(firmware_->AwaitKind(lablink::kClose));
    }
    MailboxTest::TearDown();
  }
  // Starts the reader and waits until this many reads have reached the firmware.
  void Start(std::size_t reads) {
    SetFirmwareCommands(kTable);
    reader_ = platform::CreateThread(intThreadFunction, nullptr);
    ASSERT_TRUE(firmware_->AwaitKind(lablink::kRead, reads));
  }
  // Expects that the reader exits by itself, with its two lines.
  void ExpectEnd(const std::string& line) {
    EXPECT_EQ(platform::WaitForSingleObject(reader_, 60'000), 0U);
    reader_.Reset();
    EXPECT_NE(Messages().find(line), std::string::npos) << line << "\n" << Messages();
    EXPECT_TRUE(Logged("intThreadFunction ln: 658 Before RunServer bstatus 0"));
    EXPECT_FALSE(gMailboxLink->gInterruptDevice);
  }

  platform::Thread reader_;
};

TEST_F(Reader, FramesArriveWholeAndInOrderUntilTheThreadIsAskedToStop) {
  Start(10);
  std::vector<std::string> expected;
  for (std::size_t i = 0; i < 200; ++i) expected.emplace_back(i, 'f');
  expected.emplace_back(kMaxFrameSize - 2, 'F');
  for (const std::string& payload : expected) firmware_->SendFrame(payload, 0x08);
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kRead, 10 + expected.size())) << "each slot is rearmed";
  EXPECT_EQ(Received(), expected);
  AskReaderToStop();
  EXPECT_EQ(platform::WaitForSingleObject(reader_, 60'000), 0U);
  EXPECT_TRUE(Messages().ends_with("intThreadFunction before Processread\n")) << "no other line";
  EXPECT_FALSE(gMailboxLink->gInterruptDevice);
  EXPECT_EQ(LabText("eventlog.txt"), "");
}

TEST_F(Reader, EmptyShortAndUnknownFramesAreDropped) {
  Start(10);
  firmware_->SendRaw("");
  firmware_->SendRaw("\x08");
  firmware_->SendFrame("", 0x14);
  firmware_->SendFrame("ok", 0x08);
  EXPECT_TRUE(Eventually([] { return Received() == std::vector<std::string>{"ok"}; }));
  EXPECT_TRUE(Logged("Frame of 1 bytes carries no command"));
  EXPECT_TRUE(Logged("Unknown Command received 0x14"));
  EXPECT_EQ(CountOf(Messages(), "carries no command"), 1U) << "an empty frame is not dispatched";
}

TEST_F(Reader, FailedStepEndsTheThreadWithItsLine) {
  using Row = std::tuple<const char*, std::uint64_t, std::uint32_t, const char*>;
  for (const auto& [call, skip, error, line] :
       {Row{"CreateFileA", 0, 5, "Cannot open device 5"},
        Row{"CreateIoCompletionPort", 0, 87, "Cannot open completion port 87"},
        Row{"ReadFile", 7, 22, "Asynchronous Read command failed 22"},
        Row{"ReadFile", 3, gate::kFinishAtOnce, "Asynchronous Read command failed"},
        Row{"GetQueuedCompletionStatus", 0, 735, "GetQueuedCompletionStatus failed 735"}}) {
    gate::FailNext(call, error, skip);
    Start(0);
    ExpectEnd(line);
  }
  const std::string entry = "type=2 id=0x80020011 [QuillonSvc]";
  EXPECT_EQ(CountOf(LabText("eventlog.txt"), entry), 1U) << "five ends in an hour";
  using std::chrono::steady_clock;
  ReportDeafness(Deafness::kReaderEnded, steady_clock::now() + std::chrono::minutes(59));
  EXPECT_EQ(CountOf(LabText("eventlog.txt"), entry), 1U);
  ReportDeafness(Deafness::kReaderEnded, steady_clock::now() + std::chrono::minutes(61));
  EXPECT_EQ(CountOf(LabText("eventlog.txt"), entry), 2U);
}

TEST_F(Reader, DeafServiceEndsForItsRestartOnlyWhereThatIsSetAndTheDeviceIsThere) {
  // The exit needs a process that has started its threads itself, so it runs in a second one, with
  // a lab of its own.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  gMailboxLink->restartPause = std::chrono::seconds(0);
  std::filesystem::create_directory(lab() + "/settings");
  for (const char* setting : {"0", "2", "?"}) {
    Put("settings/RestartWhenDeaf", setting);
    gate::FailNext("CreateIoCompletionPort", 87);
    EXPECT_EQ(intThreadFunction(nullptr), 0U) << setting;
  }
  Put("settings/RestartWhenDeaf", "1");
  gate::FailNext("CreateIoCompletionPort", 87);
  EXPECT_EXIT(intThreadFunction(nullptr), testing::ExitedWithCode(0), "");
  firmware_.reset();
  reader_ = platform::CreateThread(intThreadFunction, nullptr);
  EXPECT_TRUE(Eventually([] { return CountOf(Messages(), "bstatus 0") == 4; }))
      << "without a device";
  AskReaderToStop();
  EXPECT_EQ(platform::WaitForSingleObject(reader_, 60'000), 0U) << "a stop ends the wait";
  reader_.Reset();
}

TEST_F(Reader, SlotThatCannotBeRearmedOrALostDeviceEndsTheThread) {
  Start(10);
  gate::FailNext("ReadFile", 21);
  firmware_->SendFrame("last", 0x08);
  ExpectEnd("Asynchronous read command failed 21");
  EXPECT_EQ(Received(), std::vector<std::string>{"last"});
  Start(20);
  firmware_->Drop();
  ExpectEnd("GetQueuedCompletionStatus failed 1167");
  EXPECT_EQ(CountOf(LabText("eventlog.txt"), "type=2 id=0x80020012 [QuillonSvc]"), 1U);
}

}  // namespace
}  // namespace stewardry
