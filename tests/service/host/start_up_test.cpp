// The process's entry, the installer and the event entries.
#include "service/host/start_up.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <thread>

#include "service/host/event_entries.h"
#include "service/host/install.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";

class StartUp : public MailboxTest {};

TEST_F(StartUp, FailingStepOfTheInstallerIsPrinted) {
  const std::string opened = "OpenSCManager successful\n";
  const std::pair<const char*, std::string> kRows[] = {
      {"GetModuleFileNameA", "Cannot install service (5)\n"},
      {"OpenSCManagerA", "OpenSCManager failed with error (5)\n"},
      {"CreateServiceA", opened + "CreateService failed with error (5)\n"},
      {"ChangeServiceConfig2A",
       opened + "ChangeServiceConfig2 failedService installed successfully\n"}};
  for (const auto& [call, printed] : kRows) {
    gate::FailNext(call, 5);
    ::testing::internal::CaptureStdout();
    SvcInstall();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), printed);
  }
}

TEST_F(StartUp, EventTextIsCutAt127CharactersAndALostEntryIsSilent) {
  ReportServiceEvent(std::string(300, 'e').c_str(), kEventInformation);
  EXPECT_NE(LabText("eventlog.txt").find("[" + std::string(127, 'e') + "]"), std::string::npos);
  for (const char* call : {"RegisterEventSourceA", "ReportEventA"}) {
    gate::FailNext(call, 5);
    ReportServiceEvent("lost", kEventInformation);
  }
  EXPECT_EQ(LabText("eventlog.txt").find("lost"), std::string::npos);
}

TEST_F(StartUp, ServiceThatCannotStartReportsStoppedWithTheError) {
  firmware_.reset();  // no device: that alone is no failure
  for (const auto& [call, error] : {std::pair("CreateEventA", 8U), std::pair("CreateThread", 9U)}) {
    gate::Arm();
    gate::FailNext(call, error);
    SvcInit(0, nullptr);
    EXPECT_EQ(
        CallsOf({"SetServiceStatus"}),
        std::vector<std::string>{"SetServiceStatus(16 1 0 " + std::to_string(error) + " 0 1 0)"});
  }
  EXPECT_TRUE(Logged("No device interfaces present"));
}

TEST_F(StartUp, ServiceWithoutAControlHandlerLogsTheErrorAndReportsNoState) {
  const int listener = ListenUnix(lab() + "/scm");
  const auto side = [] { return FileText(kSideLog); };
  // Ends the connection, and so the dispatcher, once the service has given up.
  std::thread manager([&] {
    const int peer = ::accept(listener, nullptr, nullptr);
    EXPECT_TRUE(Eventually(
        [&] { return CountOf(side(), "RegisterServiceCtrlHandlerEx:Access denied.") == 1; }));
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
