// The pipes' threads with their clients, and the upgrade notice between two threads.
#include "service/host/pipe_threads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "service/actions/pipe_exchange.h"
#include "service/actions/upgrade.h"
#include "service/host/command_table.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/reports.h"
#include "service/inventory/status_report.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/session.h"
#include "service/mailbox/dispatcher.h"
#include "tests/service/host/pipe_server.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

using std::string_literals::operator""s;

constexpr char kVersion[] = "1.0.0.533\r\n", kImproper[] = "Please provide proper input\r\n";
constexpr char kNone[] = "N/A\r\n";

// A program that serves a pipe, and the service's thread, which connects to it.
struct ServedPipe : PipeServer {
  ServedPipe(const char* name, platform::ThreadEntry entry)
      : PipeServer(gTestLab.Path(), name), thread(platform::CreateThread(entry, nullptr)) {}
  ~ServedPipe() { EndThread(&thread); }
  // Sends the numbers from `first` on and expects these answers.
  void ExpectAnswers(int first, const std::vector<std::string>& answers) {
    for (const std::string& answer : answers)
      EXPECT_EQ(Exchange(std::to_string(first++) + '\0'), answer + "\r\n") << first - 1;
  }
  platform::Thread thread;
};

class PipeThreads : public MailboxTest {};

TEST_F(PipeThreads, QuestionIsADecimalNumberUpToAZeroByteOrTheEnd) {
  ServedPipe tray("TrayPipe", TrayPipeThread);
  const std::pair<std::string, const char*> kRows[] = {
      {" \t\r\n+5abc\0"s, kVersion},
      {"-5\0"s, kImproper},
      {"5", kVersion},
      {"", kImproper},
      {"4294967301\0"s, kImproper},                // 5 in 32 bits
      {std::string(98, '0') + "51\0"s, kVersion},  // cut after 99 characters
      {std::string(10000, '5') + '\0', kImproper}};
  for (const auto& [question, answer] : kRows)
    EXPECT_EQ(tray.Exchange(question), answer) << question;
}

TEST_F(PipeThreads, AnswersShowTheServicesState) {
  ServedPipe tray("TrayPipe", TrayPipeThread);
  ServedPipe ui("ServiceToTrayUI", ServiceToTrayUIThread);
  TavrinVersionInfo info{};
  std::fill(std::begin(info.version), std::end(info.version), 'v');  // without a terminator
  info.provisionStatus = kProvisioned;
  info.KVMStatus = 1200;
  gMailboxLink->gTavrinVersionInfo.Store(info);
  gReports->gTavrinRunning.store(1);
  gKvm->gKvmSessionStatus.Store({"YES"});
  gReports->gIPInfo.Update([](IPInfo& ip) { ip.dnsAddress = 0xABCDEF01; });
  tray.ExpectAnswers(
      1, {"ON", "Completed", std::string(64, 'v'), "YES", "1.0.0.533", "N/A", "Service Started",
          "0", "0", "0", "abcdef01", "Please provide proper input"});
  ui.ExpectAnswers(20, {"WLAN firmware authentication failed", "Please provide proper input"});
}

TEST_F(PipeThreads, ThreadServesTheNextConnectionAfterOneThatBreaksOffAtAnyByte) {
  ServedPipe tray("TrayPipe", TrayPipeThread);
  const std::string question = "11\0"s, answer = kVersion;
  for (std::size_t sent = 0; sent <= question.size(); ++sent) {
    ASSERT_TRUE(tray.Accept());
    EXPECT_TRUE(tray.Send(question.substr(0, sent)));
  }
  for (std::size_t size = 0; size <= answer.size(); ++size) {
    ASSERT_TRUE(tray.Accept());
    ASSERT_TRUE(tray.Send("5\0"s));
    EXPECT_EQ(tray.Receive(size), answer.substr(0, size));
  }
  EXPECT_EQ(tray.Exchange("5\0"s), answer);
}

TEST_F(PipeThreads, FullHeapEndsItsOwnThreadAndKeepsTheConnection) {
  ServedPipe tray("TrayPipe", TrayPipeThread);
  ServedPipe ui("ServiceToTrayUI", ServiceToTrayUIThread);
  ASSERT_TRUE(tray.Accept());
  EXPECT_EQ(ui.Exchange("20\0"s), kNone);
  gate::FailNext("HeapAlloc", 8);
  ASSERT_TRUE(tray.Send("1\0"s));
  ASSERT_EQ(platform::WaitForSingleObject(tray.thread, 60'000), 0U);
  std::uint32_t code = 0;
  ASSERT_TRUE(platform::GetExitCodeThread(tray.thread, &code));
  EXPECT_EQ(code, 774U);
  EXPECT_FALSE(tray.HasInput()) << "neither answered nor closed";
  EXPECT_EQ(ui.Exchange("20\0"s), kNone);
}

TEST_F(PipeThreads, NoticeReplacesTheLongerOneBeforeItAndIsCutAt125Characters) {
  ComposeService();
  ServedPipe upgrade("SoftwareUpgradePipe", SoftwareUpgradePipeThread);
  upgrade.ExpectAnswers(6, {"N/A", "Please provide proper input"});
  const std::pair<std::string, std::size_t> kRows[] = {{"a longer one", 12},
                                                       {"cut\0here"s, 3},
                                                       {std::string(126, 'n'), 125},
                                                       {std::string(131070, 'n'), 125}};
  for (const auto& [payload, answered] : kRows) {
    const std::string frame = payload + "\x0a\0"s;
    Processread(static_cast<std::uint32_t>(frame.size()),
                reinterpret_cast<const std::uint8_t*>(frame.data()));
    EXPECT_EQ(upgrade.Exchange("6\0"s), payload.substr(0, answered) + "\r\n") << payload.size();
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
