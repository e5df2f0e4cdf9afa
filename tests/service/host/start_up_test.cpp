// The process's entry, and what it reports where it cannot start.
#include "service/host/start_up.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";

class StartUp : public MailboxTest {};

TEST_F(StartUp, ServiceThatCannotStartReportsStoppedWithTheError) {
  for (const auto& [call, error] : {std::pair("CreateEventA", 8U), std::pair("CreateThread", 9U)}) {
    gate::Arm();
    gate::FailNext(call, error);
    SvcInit(0, nullptr);
    EXPECT_EQ(
        CallsOf({"SetServiceStatus"}),
        std::vector<std::string>{"SetServiceStatus(16 1 0 " + std::to_string(error) + " 0 1 0)"});
    const auto com = CallsOf({"CoIncrementMTAUsage", "CoInitializeEx"});
    EXPECT_EQ(com.at(0), "CoIncrementMTAUsage()") << "no access lets WMI's libraries go";
  }
}

// A pause may be much shorter or longer than it was asked for: here it takes no time.
TEST_F(StartUp, StopAwaitsAHungHandlerForATimeAndNotForAsManyPauses) {
  constexpr std::chrono::milliseconds kPatience{500};
  gate::FailEvery("Sleep(1)", gate::kFinishAtOnce);
  gStopPathRuns = true;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  AwaitStopPath(kPatience);
  EXPECT_GE(std::chrono::steady_clock::now(), end);
  gStopPathRuns = false;
}

TEST_F(StartUp, ServiceWithoutAControlHandlerLogsTheErrorAndReportsNoState) {
  const int listener = ListenUnix(lab() + "/scm");
  // Ends the connection, and so the dispatcher, once the service has given up.
  std::thread manager([&] {
    const int peer = ::accept(listener, nullptr, nullptr);
    static constexpr char kLine[] = "RegisterServiceCtrlHandlerEx:Access denied.";
    EXPECT_TRUE(Eventually([] { return CountOf(FileText(kSideLog), kLine) == 1; }));
    ::close(peer);
  });
  gate::FailNext("RegisterServiceCtrlHandlerExA", 5);
  char name[] = "quillonsvc";
  char* words[] = {name, nullptr};
  EXPECT_EQ(RunProcess(1, words), 0);
  manager.join();
  ::close(listener);
  EXPECT_EQ(CountOf(LabText("eventlog.txt"), "[RegisterServiceCtrlHandler failed with 5]"), 1U);
  EXPECT_EQ(CountCalls("SetServiceStatus"), 0U);
}

}  // namespace
}  // namespace stewardry
