#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/event.h"
#include "platform/mutex.h"
#include "platform/thread.h"
#include "service/diagnostics/log_file.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/side_log.h"
#include "service/diagnostics/thread_end.h"
#include "service/diagnostics/wmi_log.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {
namespace {

namespace gate = platform::gate;

constexpr char kBackup[] = STEWARDRY_FIXED_LOG_FOLDER "tavrinLog.lo_",
               kWmiFile[] = STEWARDRY_FIXED_LOG_FOLDER "tavrinWMI.log",
               kKeyboardLog[] = STEWARDRY_FIXED_LOG_FOLDER "tavrinKeyboardMouseLog.log";

class Logs : public LabTest {
 protected:
  void TearDown() override {
    gate::Disarm();
    ServiceLog_Close();
    LabTest::TearDown();
  }
  static void MakeFile(const char* path, std::size_t size) {
    std::ofstream(platform::NativePath(path)).close();
    std::filesystem::resize_file(platform::NativePath(path), size);
  }
};

void RunThread(platform::ThreadEntry entry, void* parameter) {
  const platform::Thread thread = platform::CreateThread(entry, parameter);
  EXPECT_EQ(platform::WaitForSingleObject(thread, 60'000), 0U);
}
// A thread entry that acquires the mutex and ends while it holds it.
std::uint32_t EndWithMutex(void* mutex) {
  return platform::WaitForSingleObject(*static_cast<platform::Mutex*>(mutex), platform::kInfinite);
}
std::uint32_t LogALine(void*) {
  LogInfo("broken off");
  return 0;
}

TEST_F(Logs, LineBetweenStartAndCloseHasItsFormToTheByte) {
  LogInfo("early");
  ASSERT_TRUE(ServiceLog_Start(kServiceLog, 1 << 20));
  LogInfo("Checking");
  LogWarn("w");
  LogError("e");
  ServiceLog_Close();
  LogInfo("late");
  const std::regex form(
      "INFO:  <20\\d\\d/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d>\\[\\d+\\]-\\[ \\d+ M \\] Checking "
      "<thread=(\\d+) \\(0x([0-9a-f]+)\\)>\r\n"
      "WARN:  <[^>]*>\\[\\d+\\]-\\[ \\d+ M \\] w <thread=[^>]*>\r\n"
      "ERROR: <[^>]*>\\[\\d+\\]-\\[ \\d+ M \\] e <thread=[^>]*>\r\n");
  std::smatch match;
  const std::string text = ServiceLogText();
  ASSERT_TRUE(std::regex_match(text, match, form)) << text;
  EXPECT_EQ(std::stoul(match[1]), std::stoul(match[2], nullptr, 16));
}

TEST_F(Logs, FileOverTheDefaultLimitIsRotatedAtTheStart) {
  for (const auto& [size, rotates] : {std::pair(3U << 20, true), std::pair(0x200000U, false)}) {
    std::filesystem::remove(platform::NativePath(kBackup));
    MakeFile(kServiceLog, size);
    ASSERT_TRUE(ServiceLog_Start(kServiceLog, kLogLimit));
    EXPECT_EQ(FileText(kBackup).size(), rotates ? size : 0);
    EXPECT_EQ(ServiceLogText().size(), rotates ? 0 : size);
  }
}

TEST_F(Logs, RotationKeepsTheLineThatTriggeredItAndReplacesTheBackup) {
  ASSERT_TRUE(ServiceLog_Start(kServiceLog, 1000));
  std::string backup;
  for (int i = 0; i < 60; ++i) {
    LogInfo("line %03d", i);
    const std::string now = FileText(kBackup);
    if (now == backup) continue;
    backup = now;
    EXPECT_EQ(CountOf(ServiceLogText(), "\r\n"), 1U);
    EXPECT_GT(backup.size(), 1000U);
  }
  EXPECT_NE(backup.find("line 0"), std::string::npos);
  EXPECT_EQ(backup.find("line 000"), std::string::npos);  // the first backup was replaced
}

// The open fails at the start or in a rotation. Later lines reach the file once it can be opened.
TEST_F(Logs, LineWithoutAFileGoesToTheDebugOutput) {
  gate::FailNext("_fsopen", 5);
  EXPECT_FALSE(ServiceLog_Start(kServiceLog, 150));
  LogInfo("seen elsewhere");
  ASSERT_TRUE(ServiceLog_Start(kServiceLog, 150));
  for (int i = 0; i < 2; ++i) LogInfo("fills the file beyond its limit");
  gate::FailNext("_fsopen", 5, 1);
  LogInfo("while it is closed");
  LogInfo("open again");
  EXPECT_EQ(CountOf(ServiceLogText(), "open again"), 1U);
  const std::string debug = LabText("debug.txt");
  for (const char* line :
       {"ERROR: Unable to open log file: " STEWARDRY_FIXED_LOG_FOLDER "tavrinLog.log; errno: 13",
        "seen elsewhere <thread=", "while it is closed <thread="})
    EXPECT_EQ(CountOf(debug, line), 1U) << line;
}

// At "none" the thread ends while it holds the mutex that processes share. Each line rotates.
TEST_F(Logs, NextLineIsWrittenAfterAThreadEndedInALineOrARotation) {
  platform::Mutex mutex = platform::CreateMutexA("TavrinMutex");
  ASSERT_TRUE(ServiceLog_Start(kServiceLog, 1));
  for (const char* place : {"none", "fseek", "remove", "rename", "_fsopen", "fwrite"}) {
    LogInfo("before");
    gate::FailNext(place, gate::kEndThread);
    RunThread(EndWithMutex, &mutex);
    RunThread(LogALine, nullptr);
    LogInfo("alive");
    EXPECT_EQ(CountOf(ServiceLogText(), "alive"), 1U) << place;
  }
}

// Each row is a process of its own, since a process opens its mutexes once.
TEST_F(Logs, ForeignObjectOfTheMutexsNameStopsNoLine) {
  for (const char* squatter : {"object of another kind", "refused mutex", "holder"}) {
    const auto writes = [&] {
      platform::Mutex held;
      if (*squatter == 'o') std::filesystem::create_directory(lab() + "/mutex-TavrinMutex");
      if (*squatter == 'r') gate::FailNext("CreateMutexA", platform::kErrorAccessDenied);
      if (*squatter == 'h') held = platform::CreateMutexA("TavrinMutex");
      if (held) platform::WaitForSingleObject(held, 0);
      std::thread([&] {
        LogInfo("%s", (ServiceLog_Start(kServiceLog, 1 << 20), squatter));
      }).join();
      std::filesystem::remove(lab() + "/mutex-TavrinMutex");
      return CountOf(ServiceLogText(), squatter) == 1;
    };
    EXPECT_EXIT(std::_Exit(writes() ? 7 : 8), ::testing::ExitedWithCode(7), "") << squatter;
  }
}

TEST_F(Logs, BothMutexesAreHeldAroundTheEndOfAThreadAndAHungThreadIsReported) {
  static std::atomic<bool> stays{true};
  ASSERT_TRUE(ServiceLog_Start(kServiceLog, 1 << 20));
  (void)WmiLog_Get();
  const platform::ThreadEntry stay = [](void*) {
    for (const platform::StayInThread here; stays;) platform::Sleep(1);
    return 0U;
  };
  const platform::Thread thread = platform::CreateThread(stay, nullptr);
  gate::Arm();
  EXPECT_FALSE(EndThreadBetweenLines(thread, 1));
  EXPECT_EQ(CallsOf({"TerminateThread", "ReleaseMutex"}),
            (std::vector<std::string>{"TerminateThread(exitCode=1)", "ReleaseMutex()",
                                      "ReleaseMutex()"}));
  stays = false;
  EXPECT_EQ(platform::WaitForSingleObject(thread, 60'000), 0U);
}

TEST_F(Logs, LinesOfManyThreadsStayWholeThroughRotationsAndRestarts) {
  ASSERT_TRUE(ServiceLog_Start(kServiceLog, 20000));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 300; ++i) LogInfo("abcdefghij %d", i);
    });
  ASSERT_TRUE(ServiceLog_Start(kServiceLog, 20000));
  for (std::thread& thread : threads) thread.join();
  const std::string text = FileText(kBackup) + ServiceLogText();
  EXPECT_GT(CountOf(text, "abcdefghij "), 0U);
  EXPECT_EQ(CountOf(text, "abcdefghij "), CountOf(text, ")>\r\n"));
  EXPECT_EQ(CountOf(text, "INFO:  <"), CountOf(text, "\r\n"));
}

TEST_F(Logs, ProcessEndsAfterAThreadEndedWithTheWmiLogsMutex) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::filesystem::remove_all(lab());      // an ended process does not remove it
        RunThread(EndWithMutex, &WmiLog_Get());  // the mutex is its first member
        WmiLog_Info("TAG", "never written");
        std::_Exit(7);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(Logs, SideLogHasFourConversionsAndOmitsWrongArguments) {
  SideLog(0, "%s:%d %x %X %% %u|", "name", -5, 255, 255);
  SideLog(0, "%s %d %d%", 5, "five");
  SideLog(9, "no such channel");
  const std::string text = FileText(kKeyboardLog);
  const std::string head = "[A-Z][a-z]{2} [A-Z][a-z]{2} \\d\\d \\d\\d:\\d\\d:\\d\\d 20\\d\\d: ";
  EXPECT_TRUE(std::regex_match(text, std::regex(head + "name:-5 ff ff % u\\|" + head + "  %")))
      << text;
  EXPECT_STREQ(SideLogTime({2026, 11, 1, 2, 7, 34, 9, 0}).text, "Mon Nov 02 07:34:09 2026");
  SideLog(2, "%s", std::string(5000, 'z').c_str());
  EXPECT_EQ(FileText(STEWARDRY_FIXED_LOG_FOLDER "tavrinMailbox.log").size(), 1023U);
}

TEST_F(Logs, WmiLogIsAppendedAfterItsBannerAndKeepsTheTailOfACutLine) {
  MakeFile(kWmiFile, 3 << 20);  // not rotated at the start, unlike the service log
  WmiLog_Start();
  gate::FailNext("_popen", 2);
  WmiLog_Start();
  WmiLog_Error("TAG", std::string(2000, 'w').c_str());
  const std::string text = FileText(kWmiFile).substr(3 << 20);
  EXPECT_EQ(CountOf(text, "INFO:  Tavrin WMI started on Linux [Version "), 1U);
  EXPECT_EQ(CountOf(text, "WARN:  Get OS version failed."), 1U);
  EXPECT_EQ(CountOf(text, "INFO:  Tavrin WMI Logging started."), 2U);
  const std::string line = text.substr(text.size() - 1024);  // 1023, of which "\n" became two
  const std::regex form(
      "[^]* M \\] ERROR: w+ \\$\\$<TAG><[A-Z][a-z]{2}  [A-Z][a-z]{2} \\d\\d "
      "\\d\\d:\\d\\d:\\d\\d\\.\\d+ 20\\d\\d [^>]*><thread=\\d+ \\(0x[0-9a-f]+\\)>\r\n");
  EXPECT_TRUE(std::regex_match(line, form)) << line;
}

}  // namespace
}  // namespace stewardry
