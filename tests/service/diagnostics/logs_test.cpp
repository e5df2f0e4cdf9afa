// The service log, the side log and the WMI log.
#include <gtest/gtest.h>

#include <regex>
#include <thread>
#include <vector>

#include "platform/event.h"
#include "platform/mutex.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/side_log.h"
#include "service/diagnostics/wmi_log.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {
namespace {

namespace gate = platform::gate;

constexpr char kFolder[] = "C:\\ProgramData\\Corvane\\Stewardry\\";
const std::string kLog = std::string(kFolder) + "tavrinLog.log";
const std::string kBackup = std::string(kFolder) + "tavrinLog.lo_";
const std::string kWmiFile = std::string(kFolder) + "tavrinWMI.log";

class Logs : public LabTest {
 protected:
  void TearDown() override {
    gate::Disarm();
    ServiceLog_Close();
    LabTest::TearDown();
  }
  static void MakeFile(const std::string& path, std::size_t size) {
    std::ofstream(platform::NativePath(path.c_str())) << std::string(size, 'o');
  }
};

TEST_F(Logs, ALineBeforeTheStartOrAfterTheCloseIsDropped) {
  LogInfo("early");
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 1 << 20));
  LogInfo("in time %d", 1);
  ServiceLog_Close();
  LogInfo("late");
  ServiceLog_Close();
  const std::string text = FileText(kLog);
  EXPECT_EQ(CountOf(text, "\r\n"), 1U);
  EXPECT_EQ(CountOf(text, "in time 1"), 1U);
}

TEST_F(Logs, ALineHasItsFormToTheByte) {
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 1 << 20));
  LogInfo("Checking");
  LogWarn("w");
  LogError("e");
  const std::regex form(
      "INFO:  <20\\d\\d/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d>\\[\\d+\\]-\\[ \\d+ M \\] Checking "
      "<thread=(\\d+) \\(0x([0-9a-f]+)\\)>\r\n"
      "WARN:  <[^>]*>\\[\\d+\\]-\\[ \\d+ M \\] w <thread=[^>]*>\r\n"
      "ERROR: <[^>]*>\\[\\d+\\]-\\[ \\d+ M \\] e <thread=[^>]*>\r\n");
  std::smatch match;
  const std::string text = FileText(kLog);
  ASSERT_TRUE(std::regex_match(text, match, form)) << text;
  EXPECT_EQ(std::stoul(match[1]), std::stoul(match[2], nullptr, 16));
}

TEST_F(Logs, AMessageOfTwoThousandCharactersIsCutAndLosesItsTail) {
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 1 << 20));
  LogInfo("%s", std::string(2000, 'm'));
  const std::string text = FileText(kLog);
  EXPECT_EQ(text.size(), 1023U);
  EXPECT_EQ(text.find("<thread="), std::string::npos);
  EXPECT_EQ(text.back(), 'm');
}

TEST_F(Logs, AFileOverTheDefaultLimitIsPutAsideAtTheStartOnly) {
  MakeFile(kLog, 3 << 20);
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 0xA00000));
  EXPECT_EQ(FileText(kBackup).size(), std::size_t{3 << 20});
  LogInfo("first");
  EXPECT_EQ(CountOf(FileText(kLog), "first"), 1U);
  ServiceLog_Close();
  MakeFile(kLog, 0x200000);  // just the limit: not more than it
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 0xA00000));
  EXPECT_EQ(FileText(kLog).size(), 0x200000U);
}

TEST_F(Logs, TheLineThatSetsOffARotationStandsInTheNewFileAndTheBackupIsReplaced) {
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 1000));
  std::string backup;
  for (int i = 0; i < 60; ++i) {
    LogInfo("line %03d", i);
    const std::string now = FileText(kBackup);
    if (now == backup) continue;
    backup = now;
    EXPECT_EQ(CountOf(FileText(kLog), "\r\n"), 1U);
    EXPECT_GT(backup.size(), 1000U);
  }
  EXPECT_NE(backup.find("line 0"), std::string::npos);
  EXPECT_EQ(backup.find("line 000"), std::string::npos);  // the first backup was replaced
}

TEST_F(Logs, AFileThatCannotBeOpenedLeavesItsLinesToTheDebugOutput) {
  gate::FailEvery("_fsopen", 5);
  EXPECT_FALSE(ServiceLog_Start(kLog.c_str(), 1 << 20));
  LogInfo("seen elsewhere");
  EXPECT_EQ(FileText(kLog), "");
  const std::string debug = LabText("debug.txt");
  EXPECT_NE(debug.find("ERROR: Unable to open log file: " + kLog + "; errno: 13"),
            std::string::npos);
  EXPECT_NE(debug.find("seen elsewhere <thread="), std::string::npos);
}

// A reopen that fails in a rotation costs no line: the text goes to the debug output, and the file
// takes the lines again as soon as it can be opened.
TEST_F(Logs, ALogThatCannotBeReopenedInARotationGoesOnOnceItCan) {
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 150));
  for (int i = 0; i < 2; ++i) LogInfo("fills the file beyond its limit");
  gate::FailNext("_fsopen", 5, 1);
  LogInfo("while it is shut");
  LogInfo("open again");
  EXPECT_NE(LabText("debug.txt").find("while it is shut"), std::string::npos);
  EXPECT_NE(FileText(kLog).find("open again"), std::string::npos);
}

TEST_F(Logs, AThreadThatDiesWithTheMutexDoesNotStopTheNextLine) {
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 1 << 20));
  const platform::Thread holder = platform::CreateThread(
      [](void*) -> std::uint32_t {
        static platform::Mutex* kept = new platform::Mutex(platform::CreateMutexA("TavrinMutex"));
        return platform::WaitForSingleObject(*kept, 0xFFFFFFFF);
      },
      nullptr);
  ASSERT_EQ(platform::WaitForSingleObject(holder, 10'000), 0U);
  LogInfo("alive");
  EXPECT_EQ(CountOf(FileText(kLog), "alive"), 1U);
}

TEST_F(Logs, LinesOfManyThreadsStayWholeThroughRotationsRestartsAndTheClose) {
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 20000));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 300; ++i) LogInfo("abcdefghij %d", i);
    });
  ASSERT_TRUE(ServiceLog_Start(kLog.c_str(), 20000));
  for (std::thread& thread : threads) thread.join();
  const std::string text = FileText(kBackup) + FileText(kLog);
  EXPECT_EQ(CountOf(text, "abcdefghij "), CountOf(text, ")>\r\n"));
  EXPECT_EQ(CountOf(text, "INFO:  <"), CountOf(text, "\r\n"));
}

TEST_F(Logs, WithoutItsMutexTheProcessEnds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ServiceLog_Close();
        std::filesystem::remove_all(lab());  // nothing of an ended process cleans it up
        gate::FailEvery("CreateMutexA", 5);
        ServiceLog_Start(kLog.c_str(), 1 << 20);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(Logs, TheSideLogKnowsFourConversionsAndNoMore) {
  SideLog(0, "%s:%d %x %X %% %u|\n", "name", -5, 255, 255);
  SideLog(9, "nowhere");
  const std::string text = FileText(std::string(kFolder) + "tavrinKeyboardMouseLog.log");
  const std::regex form(
      "[A-Z][a-z]{2} [A-Z][a-z]{2} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d 20\\d\\d: "
      "name:-5 ff ff % u\\|\n");
  EXPECT_TRUE(std::regex_match(text, form)) << text;
}

TEST_F(Logs, ALongSideLogTextIsCutAndWrongArgumentsDoNoHarm) {
  SideLog(2, "%s", std::string(5000, 'z').c_str());
  SideLog(2, "%s %d", 5, "five");
  SideLog(2, "%d%d%");
  const std::string text = FileText(std::string(kFolder) + "tavrinMailbox.log");
  EXPECT_GT(text.size(), 1000U);
  EXPECT_LT(text.size(), 1200U);
}

TEST_F(Logs, ASideLogThatCannotBeOpenedLosesItsLineOnly) {
  gate::FailEvery("CreateFileA", 5);
  SideLog(0, "lost");
  EXPECT_EQ(FileText(std::string(kFolder) + "tavrinKeyboardMouseLog.log"), "");
}

TEST_F(Logs, ALastErrorIsReportedWithItsNumberAndTheSystemsText) {
  platform::SetEvent(platform::Event());
  ReportLastError(0, "Something");
  const std::string expected = "Something failed with error 6: Invalid handle.";
  EXPECT_EQ(FileText(std::string(kFolder) + "tavrinKeyboardMouseLog.log"), expected);
  EXPECT_NE(LabText("debug.txt").find(expected), std::string::npos);
}

TEST_F(Logs, AWmiLineKeepsItsTailWhenItsMessageIsCut) {
  MakeFile(kWmiFile, 3 << 20);  // isn't rotated at the start, unlike the service log
  ASSERT_EQ(WmiLog_Open(kWmiFile.c_str(), 0xA00000), 0);
  WmiLog_Error("TAG", std::string(2000, 'w').c_str());
  const std::string line = FileText(kWmiFile).substr(3 << 20);
  EXPECT_EQ(line.size(), 1024U);  // 1023 characters, of which the newline became two
  const std::regex tail(
      "[^]*w \\$\\$<TAG><[A-Z][a-z]{2}  [A-Z][a-z]{2} \\d\\d "
      "\\d\\d:\\d\\d:\\d\\d\\.\\d+ 20\\d\\d [^>]*><thread=\\d+ "
      "\\(0x[0-9a-f]+\\)>\r\n");
  EXPECT_TRUE(std::regex_match(line, tail)) << line.substr(line.size() - 120);
  EXPECT_NE(line.find(" M ] ERROR: www"), std::string::npos);
}

TEST_F(Logs, TheWmiLogStartsWithOrWithoutTheVersion) {
  WmiLog_Start();
  EXPECT_NE(FileText(kWmiFile).find("INFO:  Tavrin WMI started on Linux [Version "),
            std::string::npos);
  gate::FailNext("_popen", 2);
  WmiLog_Start();
  EXPECT_NE(FileText(kWmiFile).find("WARN:  Get OS version failed."), std::string::npos);
  EXPECT_EQ(CountOf(FileText(kWmiFile), "INFO:  Tavrin WMI Logging started."), 2U);
}

TEST_F(Logs, ADeadHolderOfTheWmiMutexEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::filesystem::remove_all(lab());  // nothing of an ended process cleans it up
        // The object begins with its mutex; a thread takes it and ends.
        const platform::Thread thread = platform::CreateThread(
            [](void* mutex) -> std::uint32_t {
              return platform::WaitForSingleObject(*static_cast<platform::Mutex*>(mutex), 0);
            },
            &WmiLog_Get());
        platform::WaitForSingleObject(thread, 10'000);
        platform::Sleep(100);
        WmiLog_Info("TAG", "never written");
        std::_Exit(7);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace stewardry
