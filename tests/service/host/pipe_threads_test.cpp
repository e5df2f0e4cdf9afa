// The pipes' threads with programs that ask them, and the upgrade notice between two threads.
#include "service/host/pipe_threads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <thread>

#include "service/actions/pipe_exchange.h"
#include "service/actions/upgrade.h"
#include "service/host/command_table.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/status_report.h"
#include "service/kvm/session.h"
#include "service/mailbox/dispatcher.h"
#include "tests/service/host/asking_program.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

using std::string_literals::operator""s;

constexpr char kTray[] = "TrayPipe", kUpgrade[] = "SoftwareUpgradePipe", kUi[] = "ServiceToTrayUI";
constexpr char kVersion[] = "1.0.0.533\r\n", kImproper[] = "Please provide proper input\r\n";
constexpr char kNone[] = "N/A\r\n";

class PipeThreads : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    ComposeService();
    SetVersionText(&gTavrinVersionInfo, kVersionNotAvailable);
  }
  void TearDown() override {
    for (auto& [name, thread] : threads_) EndThread(&thread);
    MailboxTest::TearDown();
  }
  // The program that asks on a pipe; the pipe's thread starts when the pipe is there.
  AskingProgram& On(const std::string& pipe) {
    static const std::map<std::string, platform::ThreadEntry> kEntries = {
        {kTray, TrayPipeThread},
        {kUpgrade, SoftwareUpgradePipeThread},
        {kUi, ServiceToTrayUIThread}};
    auto& program = programs_[pipe];
    if (!program) {
      program = std::make_unique<AskingProgram>(lab(), pipe);
      threads_[pipe] = platform::CreateThread(kEntries.at(pipe), nullptr);
    }
    return *program;
  }
  // A frame of the firmware with an upgrade notice.
  static void Announce(const std::string& payload) {
    const std::string frame = payload + '\x0a' + '\0';
    Processread(static_cast<std::uint32_t>(frame.size()),
                reinterpret_cast<const std::uint8_t*>(frame.data()));
  }
  std::string Poll() { return On(kUpgrade).Ask("6\0"s); }
  // Asks for the numbers from `first` on.
  void ExpectAnswers(const char* pipe, int first, const std::vector<std::string>& answers) {
    for (const std::string& answer : answers)
      EXPECT_EQ(On(pipe).Ask(std::to_string(first++) + '\0'), answer + "\r\n") << first - 1;
  }

  std::map<std::string, std::unique_ptr<AskingProgram>> programs_;
  std::map<std::string, platform::Thread> threads_;
};

TEST_F(PipeThreads, QuestionIsADecimalNumberAtItsBeginning) {
  const struct {
    const char* about;
    std::string question;
    const char* answer;
  } kRows[] = {
      {"text behind the number", "5abc\0"s, kVersion},
      {"blanks in front", " \t\r\n5\0"s, kVersion},
      {"a plus", "+5\0"s, kVersion},
      {"a minus", "-5\0"s, kImproper},
      {"empty", "\0"s, kImproper},
      {"bytes beyond ASCII", "\xff\xfe\x80\0"s, kImproper},
      {"hexadecimal", "0x5\0"s, kImproper},
      {"five more than 32 bits hold", "4294967301\0"s, kImproper},
      {"more than 64 bits hold", "99999999999999999999999\0"s, kImproper},
      {"99 characters", std::string(98, '0') + "5\0"s, kVersion},
      {"100 characters, the last one cut", std::string(98, '0') + "51\0"s, kVersion},
      {"10000 digits", std::string(10000, '5') + '\0', kImproper},
  };
  for (const auto& row : kRows) EXPECT_EQ(On(kTray).Ask(row.question), row.answer) << row.about;
  for (const auto& [question, answer] : {std::pair("5", kVersion), std::pair("", kImproper)}) {
    ASSERT_TRUE(On(kTray).Meet());
    EXPECT_TRUE(On(kTray).Say(question));
    On(kTray).FallSilent();
    EXPECT_EQ(On(kTray).Hear(), answer) << "without a zero byte: " << question;
  }
}

TEST_F(PipeThreads, AnswersShowTheServicesState) {
  ExpectAnswers(kTray, 1,
                {"OFF", "Not Completed", "Not Available", "NO", "1.0.0.533", "N/A", "Service Ended",
                 "0", "0", "0", "0", "Please provide proper input"});
  ExpectAnswers(kUi, 20, {"N/A"});
  TavrinVersionInfo info{};
  std::fill(std::begin(info.version), std::end(info.version), 'v');  // without a terminator
  info.provisionStatus = kProvisioned;
  info.KVMStatus = 1200;
  gTavrinVersionInfo.Store(info);
  gTavrinRunning.store(1);
  gKvmSessionStatus.Store({"YES"});
  gIPInfo.Update([](IPInfo& ip) {
    ip.ipAddress = 0x0501A8C0;
    ip.subnetMask = 0x00FFFFFF;
    ip.gatewayAddress = 0xFE01A8C0;
    ip.dnsAddress = 0xABCDEF01;
  });
  ExpectAnswers(kTray, 1,
                {"ON", "Completed", std::string(64, 'v'), "YES", "1.0.0.533", "N/A",
                 "Service Started", "501a8c0", "ffffff", "fe01a8c0", "abcdef01"});
  ExpectAnswers(kUi, 20, {"WLAN firmware authentication failed", "Please provide proper input"});
}

TEST_F(PipeThreads, ProgramThatBreaksOffAtAnyByteLeavesAWorkingThread) {
  const std::string question = "11\0"s, answer = kVersion;
  for (std::size_t said = 0; said <= question.size(); ++said) {
    ASSERT_TRUE(On(kTray).Meet());
    EXPECT_TRUE(On(kTray).Say(question.substr(0, said)));
  }
  for (std::size_t heard = 0; heard <= answer.size(); ++heard) {
    ASSERT_TRUE(On(kTray).Meet());
    ASSERT_TRUE(On(kTray).Say("5\0"s));
    EXPECT_EQ(On(kTray).Hear(heard), answer.substr(0, heard));
  }
  for (const char* call : {"ReadFile", "WriteFile"}) {
    ASSERT_TRUE(On(kTray).Meet());
    gate::FailNext(call, 233);
    (void)On(kTray).Say("5\0"s);
    (void)On(kTray).Hear();
  }
  EXPECT_EQ(On(kTray).Ask("5\0"s), answer);
}

TEST_F(PipeThreads, FullHeapEndsItsOwnThreadAndKeepsTheConnection) {
  ASSERT_TRUE(On(kTray).Meet());
  EXPECT_EQ(On(kUi).Ask("20\0"s), kNone);
  gate::FailNext("HeapAlloc", 8);
  ASSERT_TRUE(On(kTray).Say("1\0"s));
  platform::Thread& thread = threads_[kTray];
  ASSERT_EQ(platform::WaitForSingleObject(thread, 60'000), 0U);
  std::uint32_t code = 0;
  ASSERT_TRUE(platform::GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 774U);
  EXPECT_FALSE(On(kTray).IsAddressed()) << "neither answered nor closed";
  EXPECT_EQ(On(kUi).Ask("20\0"s), kNone);
  EXPECT_EQ(Poll(), kNone);
}

TEST_F(PipeThreads, MissingPipeIsOpenedAgainAfterAWaitWithoutALogLine) {
  const std::string before = ServiceLogText();
  gate::FailNext("CreateFileA", 231);
  gate::FailNext("Sleep(2000)", gate::kFinishAtOnce);
  EXPECT_EQ(On(kUi).Ask("20\0"s), kNone);
  const auto calls = CallsOf({"CreateFileA", "Sleep"});
  const std::string open = R"(CreateFileA(\\.\pipe\ServiceToTrayUI,2))";
  ASSERT_GE(calls.size(), 3U);
  EXPECT_EQ(std::vector(calls.begin(), calls.begin() + 3),
            (std::vector<std::string>{open, "Sleep(2000)", open}));
  EXPECT_EQ(ServiceLogText(), before);
}

TEST_F(PipeThreads, NoticeIsHandedOutTenTimesCutAt125Characters) {
  ExpectAnswers(kUpgrade, 6, {"N/A", "Please provide proper input"});
  Announce("a notice that is longer than the next one");
  EXPECT_TRUE(Logged("Software upgrade command received\nAttempting Software Upgrade"));
  for (int i = 0; i < 7; ++i) EXPECT_EQ(Poll(), "a notice that is longer than the next one\r\n");
  Announce("v2");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(Poll(), "v2\r\n") << "poll " << i + 1;
  EXPECT_EQ(Poll(), kNone);
  Announce("");  // the dispatcher drops it
  EXPECT_EQ(Poll(), kNone);
  const std::pair<std::string, std::size_t> kRows[] = {{"cut\0here"s, 3},
                                                       {std::string(125, 'n'), 125},
                                                       {std::string(126, 'n'), 125},
                                                       {std::string(131070, 'n'), 125}};
  for (const auto& [payload, answered] : kRows) {
    Announce(payload);
    EXPECT_EQ(Poll(), payload.substr(0, answered) + "\r\n") << payload.size();
  }
}

// A reading between the two halves of a write must neither mix two texts nor count on the other
// one.
TEST(UpgradeNotice, NoticeDuringAPollKeepsTextAndCountWhole) {
  constexpr int kNotices = 20'000;
  std::atomic<bool> over{false};
  std::thread firmware([&] {
    std::vector<std::uint8_t> payload(kUpgradeNoticeSize);
    for (int i = 0; i < kNotices; ++i) {
      std::fill(payload.begin(), payload.end(), static_cast<std::uint8_t>('!' + i % 90));
      SoftwareUpgradeCommand(payload.data(), static_cast<std::uint32_t>(payload.size()));
      if (i % 16 == 0) std::this_thread::yield();
    }
    over = true;
  });
  std::array<char, kUpgradeNoticeSize + 1> text;
  std::size_t torn = 0, sinceOver = 0;
  for (bool last = false; !last;) {
    last = over;
    while (TakeUpgradeNotice(text)) {
      torn += std::count(text.begin(), text.end(), text[0]) != kUpgradeNoticeSize;
      sinceOver += last;
    }
  }
  firmware.join();
  EXPECT_EQ(torn, 0U);
  EXPECT_LE(sinceOver, kUpgradeReads);
  EXPECT_FALSE(TakeUpgradeNotice(text)) << "the last notice is withdrawn after its ten polls";
}

}  // namespace
}  // namespace stewardry
