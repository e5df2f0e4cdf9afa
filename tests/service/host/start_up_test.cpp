#include "service/host/start_up.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "service/diagnostics/side_log.h"
#include "service/host/server_thread.h"
#include "service/kvm/kvm_state.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

namespace fs = std::filesystem;

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
    EXPECT_EQ(com.at(0), "CoIncrementMTAUsage()") << "WMI's libraries stay loaded";
  }
}

// The firmware's commands are served while the server thread makes its report.
TEST_F(StartUp, TrustedPeerThatIsNamedDuringTheReportStays) {
  gKvm->gKvmEnabled = 1;
  gKvm->gKvmTrustedIP = 5;
  ServerStartup();
  EXPECT_TRUE(Logged("Initializing KVM IP and Port to 0"));
  EXPECT_EQ(gKvm->gKvmTrustedIP.load(), 5U);
}

// A sleep may be much shorter or longer than requested: here it takes no time.
TEST_F(StartUp, StopAwaitsAHungHandlerForATimeAndNotANumberOfSleeps) {
  constexpr std::chrono::milliseconds kPatience{500};
  gate::FailEvery("Sleep(1)", gate::kFinishAtOnce);
  gServiceControl->gStopPathRuns = true;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  AwaitStopPath(kPatience);
  EXPECT_GE(std::chrono::steady_clock::now(), end);
  gServiceControl->gStopPathRuns = false;
}

TEST_F(StartUp, ServiceWithoutAControlHandlerLogsTheErrorAndReportsNoState) {
  const int listener = ListenUnix(lab() + "/scm");
  // Ends the connection, and so the dispatcher, once the service has failed to start.
  std::thread manager([&] {
    const int peer = ::accept(listener, nullptr, nullptr);
    static constexpr char kLine[] = "RegisterServiceCtrlHandlerEx: failed with error 5: ";
    EXPECT_TRUE(Eventually([] { return CountOf(FileText(kKeyboardMouseLog), kLine) == 1; }));
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

// A user of the machine may create folders and files at the logs' place before the service starts.
TEST_F(StartUp, ForeignLogFolderIsRenamedAndForeignFilesInTheFolderAreDeleted) {
  const fs::path data = lab() + "/ProgramData", company = data / "Corvane",
                 logs = company / "Stewardry", trap = lab() + "/trap";
  const auto names = [](const fs::path& at) {
    return std::distance(fs::directory_iterator(at), {});
  };
  fs::create_directory(trap);
  Put("trap/file", "text");
  for (const fs::path& place : {company, logs})
    for (const std::string kind : {"own", "link", "foreign"}) {
      fs::remove_all(data);
      fs::create_directories(kind == "link" ? place.parent_path() : place);
      if (kind == "link") fs::create_symlink(trap, place);
      if (kind == "foreign" && ::chown(place.c_str(), 65534, 65534) != 0) continue;
      EXPECT_TRUE(InitServiceLog());
      EXPECT_EQ(names(place.parent_path()), kind == "own" ? 1 : 2) << place << kind;
      EXPECT_EQ(fs::symlink_status(place).permissions(), fs::perms::owner_all) << place << kind;
    }
  fs::create_symlink(trap / "file", logs / "tavrinKeyboardMouseLog.log");
  fs::create_hard_link(trap / "file", logs / "tavrinWMI.log");
  EXPECT_TRUE(InitServiceLog());
  EXPECT_EQ(names(logs), 1) << "the service's own log";
  // No line is written to a foreign folder that can't be renamed.
  fs::rename(logs, company / "old");
  fs::create_symlink(trap, logs);
  gate::FailNext("rename", 5);
  EXPECT_FALSE(InitServiceLog());
  SideLog(kSideLogKeyboardMouse, "no line");
  EXPECT_EQ(names(trap), 1);
  EXPECT_TRUE(InitServiceLog());
}

}  // namespace
}  // namespace stewardry
