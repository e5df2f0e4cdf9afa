// The pipes' threads with programs that ask them, and the upgrade notice between two threads.
#include "service/host/pipe_threads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <thread>

#include "service/actions/pipe_exchange.h"
#include "service/actions/upgrade.h"
#include "service/host/command_table.h"
#include "service/host/server_thread.h"
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
constexpr char kImproper[] = "Please provide proper input\r\n";

class PipeThreads : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    ComposeService();
    gTavrinVersionInfo.Store({});
    SetVersionText(&gTavrinVersionInfo, kVersionNotAvailable);
    gTavrinRunning.store(0);
    gKvmSessionStatus.Store({"NO"});
    gIPInfo.Store({});
  }
  void TearDown() override {
    for (auto& [name, thread] : threads_) EndThread(&thread);
    MailboxTest::TearDown();
  }
  // The program that asks on a pipe; its thread starts when the pipe is there, and so needs no
  // wait.
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

  std::map<std::string, std::unique_ptr<AskingProgram>> programs_;
  std::map<std::string, platform::Thread> threads_;
};

TEST_F(PipeThreads, AQuestionIsReadAsAnotherNumberOrPastItsBounds) {
  const std::string version = "1.0.0.533\r\n";
  const struct {
    const char* about;
    std::string question;
    std::string answer;
  } kRows[] = {
      {"plain", "5\0"s, version},
      {"text behind the number", "5abc\0"s, version},
      {"blanks in front", " \t\r\n5\0"s, version},
      {"a plus", "+5\0"s, version},
      {"a minus", "-5\0"s, kImproper},
      {"empty", "\0"s, kImproper},
      {"no number", "five\0"s, kImproper},
      {"bytes beyond ASCII", "\xff\xfe\x80\0"s, kImproper},
      {"hexadecimal", "0x5\0"s, kImproper},
      {"another pipe's command", "20\0"s, kImproper},
      {"five more than 32 bits hold", "4294967301\0"s, kImproper},
      {"more than 64 bits hold", "99999999999999999999999\0"s, kImproper},
      {"99 characters", std::string(98, '0') + "5\0"s, version},
      {"100 characters, the last one cut", std::string(98, '0') + "51\0"s, version},
      {"10000 characters", "5" + std::string(9999, ' ') + '\0', version},
      {"10000 digits", std::string(10000, '5') + '\0', kImproper},
      {"a second question behind the first", "5\0007\0"s, version},
  };
  for (const auto& row : kRows) EXPECT_EQ(On(kTray).Ask(row.question), row.answer) << row.about;
  for (const auto& [said, answer] :
       {std::pair("5", version), std::pair("", std::string(kImproper))}) {
    ASSERT_TRUE(On(kTray).Meet());
    EXPECT_TRUE(On(kTray).Say(said));
    On(kTray).FallSilent();
    EXPECT_EQ(On(kTray).Hear(), answer) << "without its zero byte: " << said;
  }
}

TEST_F(PipeThreads, TheTrayIsToldOtherThanTheServiceKnows) {
  const auto expectAnswers = [&](const char* pipe, int first, std::vector<std::string> answers) {
    for (const std::string& answer : answers)
      EXPECT_EQ(On(pipe).Ask(std::to_string(first++) + '\0'), answer + "\r\n") << first - 1;
  };
  expectAnswers(kTray, 1,
                {"OFF", "Not Completed", "Not Available", "NO", "1.0.0.533", "N/A", "Service Ended",
                 "0", "0", "0", "0", "Please provide proper input"});
  expectAnswers(kUi, 20, {"N/A"});
  TavrinVersionInfo info{};
  std::fill(std::begin(info.version), std::end(info.version), 'v');  // no end of its own
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
  expectAnswers(kTray, 1,
                {"ON", "Completed", std::string(64, 'v'), "YES", "1.0.0.533", "N/A",
                 "Service Started", "501a8c0", "ffffff", "fe01a8c0", "abcdef01"});
  expectAnswers(kUi, 20, {"WLAN firmware authentication failed", "Please provide proper input"});
  expectAnswers(kUi, 1, {"Please provide proper input"});
  gTavrinRunning.store(2);
  gTavrinVersionInfo.Update([](TavrinVersionInfo& changed) { changed.provisionStatus = 1; });
  expectAnswers(kTray, 1, {"OFF", "Not Completed"});
}

TEST_F(PipeThreads, AnAskerThatBreaksOffAtAnyByteEndsItsThreadOrSpoilsTheNextQuestion) {
  const std::string question = "11\0"s;
  for (std::size_t said = 0; said <= question.size(); ++said) {
    ASSERT_TRUE(On(kTray).Meet());
    EXPECT_TRUE(On(kTray).Say(question.substr(0, said)));
    On(kTray).HangUp();
  }
  const std::string answer = "1.0.0.533\r\n";
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

TEST_F(PipeThreads, AFullHeapEndsTheOtherThreadsOrHangsUp) {
  ASSERT_TRUE(On(kTray).Meet());
  EXPECT_EQ(On(kUi).Ask("20\0"s), "N/A\r\n");
  gate::FailNext("HeapAlloc", 8);
  ASSERT_TRUE(On(kTray).Say("1\0"s));
  platform::Thread& thread = threads_[kTray];
  ASSERT_EQ(platform::WaitForSingleObject(thread, 10'000), 0U);
  std::uint32_t code = 0;
  ASSERT_TRUE(platform::GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 774U);
  EXPECT_FALSE(On(kTray).IsAddressed()) << "neither answered nor hung up on";
  EXPECT_EQ(On(kUi).Ask("20\0"s), "N/A\r\n");
  EXPECT_EQ(Poll(), "N/A\r\n");
}

TEST_F(PipeThreads, AThreadWithoutAPipeGivesUpSpinsOrSpeaks) {
  const std::string before = ServiceLogText();
  gate::FailNext("CreateFileA", 231);
  EXPECT_EQ(On(kUi).Ask("20\0"s), "N/A\r\n") << "after one failure and one wait";
  std::vector<std::string> opens;
  for (const std::string& call : gate::Trace())
    if (call.rfind("CreateFileA", 0) == 0 || call.rfind("Sleep(2", 0) == 0) opens.push_back(call);
  const std::string open = R"(CreateFileA(\\.\pipe\ServiceToTrayUI,2))";
  ASSERT_GE(opens.size(), 3U);
  EXPECT_EQ((std::vector<std::string>{opens[0], opens[1], opens[2]}),
            (std::vector<std::string>{open, "Sleep(2000)", open}));
  EXPECT_EQ(ServiceLogText(), before);
}

TEST_F(PipeThreads, ANoticeIsHandedOutOtherThanTenTimesOrWithAnothersRemains) {
  EXPECT_EQ(Poll(), "N/A\r\n");
  EXPECT_EQ(On(kUpgrade).Ask("1\0"s), kImproper);
  Announce("a notice that is longer than the next one");
  EXPECT_TRUE(Logged("Software upgrade command received\nAttempting Software Upgrade"));
  for (int i = 0; i < 7; ++i) EXPECT_EQ(Poll(), "a notice that is longer than the next one\r\n");
  Announce("v2");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(Poll(), "v2\r\n") << "poll " << i + 1;
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Poll(), "N/A\r\n");
  Announce("");  // the guard stops it
  EXPECT_EQ(Poll(), "N/A\r\n");
  const struct {
    std::string payload;
    std::size_t heard;  // of the payload
  } kRows[] = {
      {"cut\0here"s, 3},
      {std::string(1, '\0'), 0},
      {std::string(125, 'n'), 125},
      {std::string(126, 'n'), 125},
      {std::string(256, 'n'), 125},
      {std::string(131070, 'n'), 125},
  };
  for (const auto& row : kRows) {
    Announce(row.payload);
    EXPECT_EQ(Poll(), row.payload.substr(0, row.heard) + "\r\n") << row.payload.size();
  }
}

TEST(UpgradeNotice, ATextThatFillsItsFieldRunsOnOrLosesItsEnd) {
  std::array<char, kUpgradeNoticeSize + 1> text;
  for (const std::size_t length : {255U, 256U, 257U, 1000U}) {
    text.fill('#');
    const std::vector<std::uint8_t> payload(length, 'n');
    SoftwareUpgradeCommand(payload.data(), static_cast<std::uint32_t>(length));
    ASSERT_TRUE(TakeUpgradeNotice(text));
    EXPECT_EQ(std::string(text.data()), std::string(std::min(length, kUpgradeNoticeSize), 'n'));
  }
}

TEST(UpgradeNotice, ANoticeInTheMidstOfAPollTearsItsTextOrItsCount) {
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

TEST_F(PipeThreads, ThePipesWaitForTheReportOrTheReportForThem) {
  OpenMailbox();
  std::ofstream(lab() + "/connected.txt") << "2\n";
  gate::FailEvery("CreateThread", 8);
  ServerStartup();
  const auto trace = gate::Trace();
  const auto sockets = std::find_if(trace.begin(), trace.end(), [](const std::string& call) {
    return call.rfind("WSAStartup", 0) == 0;
  });
  ASSERT_NE(sockets, trace.end());
  EXPECT_EQ(std::count(trace.begin(), sockets, "CreateThread()"), 3);
  EXPECT_EQ(std::count(sockets, trace.end(), "CreateThread()"), 0);
  EXPECT_TRUE(firmware_->Await(0x9C416424)) << "the version was asked for";
  EXPECT_TRUE(Logged("Initializing KVM IP and Port to 0"));
}

}  // namespace
}  // namespace stewardry
