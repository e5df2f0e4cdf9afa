// The process's entry, the installer and the event entries.
#include "service/host/start_up.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "service/host/event_entries.h"
#include "service/host/install.h"
#include "service/host/resume.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

class StartUp : public MailboxTest {};

int RunWith(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  return RunProcess(static_cast<int>(argv.size()), argv.data());
}

TEST_F(StartUp, WithoutAManagerTheDispatcherFailsAndSaysSoInTheEventLog) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"quillonsvc"}, {"quillonsvc", "other", "install"}}) {
    EXPECT_EQ(RunWith(words), 0);
  }
  EXPECT_EQ(CountOf(LabText("eventlog.txt"),
                    "QuillonSvc type=1 id=0xC0020001 [QuillonSvc] [StartServiceCtrlDispatcher "
                    "failed with 1063]"),
            2U);
  EXPECT_TRUE(Logged("main line: 157 Starting"));
}

TEST_F(StartUp, InstallInAnyCaseRegistersOnceAndRefusesTheSecondTime) {
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(RunWith({"quillonsvc", "InStAlL"}), 0);
  EXPECT_EQ(RunWith({"quillonsvc", "install", "ignored"}), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "OpenSCManager successful\nService installed successfully\n"
            "OpenSCManager successful\nCreateService failed with error (1073)\n");
  const std::string registration = LabText("services/QuillonSvc");
  for (const char* line :
       {"displayName=QuillonSvc\n", "desiredAccess=0xF01FF\n", "serviceType=16\n", "startType=2\n",
        "errorControl=1\n", "dependencies=Tcpip,Tavrin-MailBoxDrv\n",
        "description=Corvane Stewardy Service\n"})
    EXPECT_EQ(CountOf(registration, line), 1U) << line;
  EXPECT_TRUE(Logged("main 160 SvcInstall"));
}

TEST_F(StartUp, EachFailingStepOfTheInstallerIsPrinted) {
  struct Row {
    const char* call;
    const char* printed;
  };
  constexpr Row kRows[] = {
      {"GetModuleFileNameA", "Cannot install service (5)\n"},
      {"OpenSCManagerA", "OpenSCManager failed with error (5)\n"},
      {"CreateServiceA", "OpenSCManager successful\nCreateService failed with error (5)\n"},
      {"ChangeServiceConfig2A",
       "OpenSCManager successful\nChangeServiceConfig2 failedService installed successfully\n"},
  };
  for (const Row& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, 5);
    ::testing::internal::CaptureStdout();
    SvcInstall();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), row.printed);
  }
}

TEST_F(StartUp, AnEventTextIsCutAndALostEntryIsNoHarm) {
  ReportServiceEvent(std::string(300, 'e').c_str(), kEventInformation);
  EXPECT_NE(LabText("eventlog.txt").find("[" + std::string(127, 'e') + "]"), std::string::npos);
  gate::FailNext("RegisterEventSourceA", 5);
  ReportServiceEvent("lost", kEventInformation);
  gate::FailNext("ReportEventA", 5);
  ReportServiceEvent("lost", kEventInformation);
  EXPECT_EQ(LabText("eventlog.txt").find("lost"), std::string::npos);
}

TEST_F(StartUp, TheLogFoldersAreMadeAndTheirFailureIsSilent) {
  ServiceLog_Close();
  std::filesystem::remove_all(lab() + "/ProgramData/Corvane");
  gate::FailNext("SHGetFolderPathA", 5);
  EXPECT_FALSE(InitServiceLog());
  gate::FailNext("CreateDirectoryA", 5, 1);
  EXPECT_FALSE(InitServiceLog());
  EXPECT_TRUE(InitServiceLog());
  EXPECT_EQ(CountOf(Messages(),
                    "Quillon Stewardry Service 1.0.0.533 started on Windows version: "
                    "Linux [Version "),
            1U);
  gate::FailNext("_popen", 2);
  EXPECT_TRUE(InitServiceLog());
  EXPECT_TRUE(Logged("Quillon Stewardry Service 1.0.0.533 started..."));
}

TEST_F(StartUp, AServiceThatCannotBeStartedReportsStoppedWithTheError) {
  struct Row {
    const char* call;
    std::uint64_t skip;
    std::uint32_t error;
  };
  constexpr Row kRows[] = {{"CreateEventA", 0, 8}, {"CreateThread", 0, 9}};
  firmware_.reset();  // no device: that alone is no failure
  for (const Row& row : kRows) {
    gate::Arm();
    gate::FailNext(row.call, row.error, row.skip);
    SvcInit(0, nullptr);
    const auto trace = gate::Trace();
    const std::string report = "SetServiceStatus(16 1 0 " + std::to_string(row.error) + " 0 1 0)";
    EXPECT_EQ(std::count(trace.begin(), trace.end(), report), 1) << row.call;
  }
  EXPECT_TRUE(Logged("No device interfaces present"));
}

TEST_F(StartUp, AResumeReportsOnlyForAProvisionedFirmwareAndReplacesAnOlderReport) {
  OpenMailbox();
  ResumeReport();
  EXPECT_TRUE(Logged("Skip non DASH commands to ORRIN after S0i3 resume for non Provisioned case"));
  EXPECT_FALSE(gServiceThreads->thread[kResumeThread]);
  gTavrinVersionInfo.Update([](TavrinVersionInfo& info) { info.provisionStatus = 2; });
  firmware_->SetVerdict(0x9C41A410, FirmwarePeer::kHold);  // the first report hangs there
  ResumeReport();
  ASSERT_TRUE(firmware_->Await(0x9C41A410));
  ResumeReport();
  EXPECT_TRUE(firmware_->AwaitKind(lablink::kCancel));
  EXPECT_TRUE(firmware_->Await(0x9C41A410, 2));
  EndThread(&gServiceThreads->thread[kResumeThread]);
  gTavrinVersionInfo.Store({});
}

}  // namespace
}  // namespace stewardry
