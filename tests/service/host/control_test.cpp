// What the service manager's controls do, read off the trace of platform calls and the logs.
#include "service/host/control.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "service/host/start_up.h"
#include "service/inventory/address_watch.h"
#include "service/inventory/battery_report.h"
#include "service/inventory/status_report.h"
#include "service/kvm/session.h"
#include "service/kvm/shared_region.h"
#include "service/mailbox/control_codes.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";

std::uint32_t SleepForEver(void*) {
  for (;;) platform::Sleep(1'000'000);
}

class Control : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    OpenMailbox();
    *gServiceStopEvent = platform::CreateEventA(true, false);
    for (const int slot : {kServerThread, kReaderThread})
      gServiceThreads->thread[slot] = platform::CreateThread(SleepForEver, nullptr);
    gate::Arm();
  }
  void TearDown() override {
    gate::Disarm();
    for (platform::Thread& thread : gServiceThreads->thread)
      if (thread) EndThread(&thread);
    gServiceStopEvent->Reset();
    MailboxTest::TearDown();
  }
  // The platform calls of a control without those of the logs, joined by blanks.
  static std::string ControlCalls() {
    constexpr const char* kKept[] = {"DeviceIoControl", "GetExitCodeThread", "TerminateThread",
                                     "CancelIoEx",      "SetEvent",          "SetServiceStatus"};
    std::string calls;
    for (const std::string& call : gate::Trace())
      for (const char* kept : kKept)
        if (call.rfind(std::string(kept) + "(", 0) == 0) calls += call + " ";
    return calls;
  }
  static void Setting(const platform::Guid& guid, std::uint32_t value) {
    std::uint8_t event[24] = {};
    std::memcpy(event, &guid, sizeof guid);
    const std::uint32_t size = 4;
    std::memcpy(event + 16, &size, 4);
    std::memcpy(event + 20, &value, 4);
    SvcCtrlHandler(13, 0x8013, event, nullptr);
  }
};

TEST_F(Control, StopEndsTheThreadsInItsOrderSaysNothingToTheFirmwareAndClosesTheLog) {
  gTavrinRunning = 1;
  EXPECT_EQ(SvcCtrlHandler(1, 0, nullptr, nullptr), 0U);
  const std::string calls = ControlCalls();
  EXPECT_EQ(calls,
            "SetServiceStatus(16 3 1 0 0 1 0) GetExitCodeThread() TerminateThread(exitCode=259) "
            "GetExitCodeThread() TerminateThread(exitCode=259) CancelIoEx() SetEvent() "
            "SetServiceStatus(16 3 1 0 0 2 0) ");
  EXPECT_TRUE(firmware_->Requests().empty());
  EXPECT_EQ(gTavrinRunning.load(), 0U);
  EXPECT_EQ(platform::WaitForSingleObject(*gServiceStopEvent, 0), 0U);
  EXPECT_EQ(CountOf(Messages(), "SERVICE_CONTROL_STOP recevied\r\n"), 1U);
  LogInfo("after the close");
  EXPECT_FALSE(Logged("after the close"));
  EXPECT_EQ(CountOf(FileText(kSideLog), "ReportSvcStatus: CurrentServiceState 3\n"), 2U);
}

TEST_F(Control, AStopKeepsTheWatchOnTheHostsAddresses) {
  ASSERT_EQ(RegisterNetworkEvent(), 1U);
  SvcCtrlHandler(1, 0, nullptr, nullptr);
  EXPECT_EQ(gIpChangeHandle.load(), nullptr);
  const std::string lines = Messages();
  const std::size_t given = lines.find("CancelMibChangeNotify2 Passed\n");
  EXPECT_LT(given, lines.find("CancelIO called service stop. Error status "));
}

TEST_F(Control, PreshutdownTellsTheFirmwareAndLeavesTheServiceRunning) {
  gTavrinRunning = 1;
  SvcCtrlHandler(15, 0, nullptr, nullptr);
  EXPECT_EQ(ControlCalls(),
            "DeviceIoControl(0x9C41A460, in 2, out 0) GetExitCodeThread() "
            "TerminateThread(exitCode=259) GetExitCodeThread() TerminateThread(exitCode=259) "
            "CancelIoEx() ");
  ASSERT_EQ(firmware_->Requests().size(), 1U);
  EXPECT_EQ(firmware_->Requests()[0].input, std::string("\x02\0", 2));
  EXPECT_EQ(gTavrinRunning.load(), 1U);
  EXPECT_TRUE(Logged("Shutdown Command sent to ORRIN"));
  EXPECT_TRUE(Logged("CancelIO called preshutdown"));
}

TEST_F(Control, AFailedStepIsSaidAndTheNextStepsRun) {
  gate::FailEvery("GetExitCodeThread", 6);
  gate::FailEvery("TerminateThread", 6);
  gate::FailEvery("CancelIoEx", 1168);
  SvcCtrlHandler(15, 0, nullptr, nullptr);
  EXPECT_EQ(CountOf(Messages(), "GetExitCodeThread failed\n"), 2U);
  EXPECT_TRUE(Logged("TerminateThread failed"));
  EXPECT_TRUE(Logged("Terminatethread failed"));
  EXPECT_TRUE(Logged("CancelIoEx failed 1168"));
  gate::FailEvery("SetServiceStatus", 6);
  SvcCtrlHandler(1, 0, nullptr, nullptr);
  EXPECT_TRUE(Logged("CancelIoEx failed. Error status 1168"));
  EXPECT_EQ(platform::WaitForSingleObject(*gServiceStopEvent, 0), 0U);
}

TEST_F(Control, AStopFreesAReportThatHangsInARequest) {
  firmware_->SetVerdict(0x9C41A410, FirmwarePeer::kHold);
  std::thread report([] {
    const std::uint32_t up = kServiceUp;
    WriteTavrinStatus(&up);
  });
  ASSERT_TRUE(firmware_->Await(0x9C41A410));
  SvcCtrlHandler(1, 0, nullptr, nullptr);
  report.join();
}

TEST_F(Control, InterrogateLeavesNoLineAndAnUnknownControlOne) {
  const std::string before = ServiceLogText();
  SvcCtrlHandler(4, 0, nullptr, nullptr);
  EXPECT_EQ(ServiceLogText(), before);
  EXPECT_EQ(FileText(kSideLog), "");
  SvcCtrlHandler(6, 0, nullptr, nullptr);
  EXPECT_NE(FileText(kSideLog).find("SvcCtrlHandler:SERVICE_CONTROL  6 recevied\n"),
            std::string::npos);
}

TEST_F(Control, PowerEventsAreToldApartAndKeepTheirValues) {
  struct Row {
    int flag;
    const char* line;
    std::uint32_t state;
  };
  constexpr Row kRows[] = {{1, "GUID_BATTERY_PERCENTAGE_REMAINING Event", 3},
                           {2, "Battery is Critical 17", 1},
                           {4, "Battery is Drained 17", 2},
                           {10, "GUID_BATTERY_PERCENTAGE_REMAINING Event", 2}};
  for (const Row& row : kRows) {
    std::ofstream(lab() + "/battery.txt") << "0 " << row.flag << " 17";
    Setting(kGuidBatteryPercentageRemaining, 17);
    EXPECT_TRUE(Logged(row.line));
    EXPECT_EQ(gBatteryState.load(), row.state);
  }
  EXPECT_EQ(CountOf(Messages(), "Battery is "), 2U);
  Setting(kGuidAcdcPowerSource, 1);
  EXPECT_TRUE(Logged("GUID Received 0x5d3e9a59,0xe9d5,0x4b00,0x0"));
  EXPECT_TRUE(Logged("Size of event 4,32787"));
  EXPECT_TRUE(Logged("GUID_ACDC_POWER_SOURCE Event 1"));
  Setting(kGuidGlobalUserPresence, 2);
  EXPECT_EQ(gUserPresence.load(), 2U);
  gate::FailNext("GetSystemPowerStatus", 5);
  Setting(kGuidGlobalUserPresence, 0);
  EXPECT_EQ(gUserPresence.load(), 2U);
  SvcCtrlHandler(13, 0, nullptr, nullptr);  // without data nothing is read
}

TEST_F(Control, ALogonWithoutAKvmSessionIsOnlyNoted) {
  for (std::uint32_t event = 4; event <= 9; ++event) SvcCtrlHandler(14, event, nullptr, nullptr);
  const std::string side = FileText(kSideLog);
  EXPECT_NE(side.find("WTS_SESSION_LOGON gSessionLogonCount 1"), std::string::npos);
  for (const char* name : {"LOGOFF", "LOCK", "UNLOCK"})
    EXPECT_EQ(CountOf(side, std::string("SvcHandleSessionChange: WTS_SESSION_") + name), 1U);
  EXPECT_NE(side.find("NotifyKvmTerminationEvents: KVMdisabled"), std::string::npos);
  EXPECT_EQ(CountOf(side, "terminated"), 0U);
  EXPECT_TRUE(firmware_->Requests().empty());
}

TEST_F(Control, ALogonDuringAKvmSessionEndsItForTheFirmwareTooAndNeverHalfStopsTheService) {
  constexpr std::uint32_t kGone = ControlCodeFor(Operation::kSendCloseSocketcmd).code;
  const auto threads = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
  };
  const std::ptrdiff_t before = threads();
  for (std::size_t logon = 1; logon <= 3; ++logon) {
    gKeyboardMouseReady = 1;
    KeyBoardBufferVirtualAddress = logon == 3 ? 0 : 0x10000;
    gKvmSocketState = kKvmSessionUp;
    gKvmEnabled = 1;
    SvcCtrlHandler(14, 5, nullptr, nullptr);
    ASSERT_TRUE(firmware_->Await(kGone, logon));
    ASSERT_TRUE(Eventually([&] { return threads() == before; })) << "the end is through";
    EXPECT_EQ(gKvmSocketState.load(), kKvmSessionFinished);
    EXPECT_EQ(gKvmEnabled.load(), 0);
    EXPECT_EQ(gKeyboardMouseReady.load(), 0) << "the region was given back";
  }
  const std::string side = FileText(kSideLog);
  EXPECT_EQ(CountOf(side, "NotifyKvmTerminationEvents:KVM enabled\n"), 3U);
  EXPECT_EQ(CountOf(side, "Requested Terminate KVM session\n"), 2U);
  EXPECT_EQ(CountOf(side, "Keyboard ring buffer invalid\n"), 1U);
  EXPECT_EQ(
      CountOf(side, "NotifyKvmTerminationEvents: KVM session terminated and Reboot initiated\n"),
      3U);
  EXPECT_EQ(platform::WaitForSingleObject(*gServiceStopEvent, 0), 258U);
  std::uint32_t code = 0;
  EXPECT_TRUE(platform::GetExitCodeThread(gServiceThreads->thread[kServerThread], &code));
  EXPECT_EQ(code, platform::kStillActive);
}

}  // namespace
}  // namespace stewardry
