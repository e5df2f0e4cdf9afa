#include "service/standby/input_desktop.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "platform/thread.h"
#include "service/standby/standby_state.h"
#include "tests/fresh_state.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {
namespace {

namespace gate = platform::gate;

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";
constexpr char kInfoCall[] = "GetUserObjectInformationA";

class InputDesktop : public LabTest {
 protected:
  // A new thread starts on the default desktop.
  template <class Body>
  static void OnNewThread(Body body) {
    Renew(&gStandby);
    gStandby->gPlatformId = platform::kPlatformWinNt;
    std::filesystem::remove(platform::NativePath(kSideLog));
    std::thread(body).join();
  }
  // The side log's lines without their times, handles as "H".
  static std::string Log() {
    const std::string log = std::regex_replace(FileText(kSideLog), std::regex("0x[0-9a-f]+"), "H");
    return std::regex_replace(log, std::regex("(^|\n).{24}: "), "$1");
  }
  static void ExpectLogged(const std::string& text) {
    EXPECT_NE(Log().find(text), std::string::npos) << text << " in " << Log();
  }
  static std::string ThreadDesktopName() {
    const auto desktop = platform::GetThreadDesktop(platform::GetCurrentThreadId());
    ObjectName name{};
    return ShowObjectName(&desktop, &name) ? name.data() : "";
  }
};

TEST_F(InputDesktop, LeavingClosesTheHandlesThatEnteringOpened) {
  Put("input_desktop.txt", "Winlogon");
  OnNewThread([] {
    EXPECT_TRUE(EnterInteractiveDesktop());
    EXPECT_EQ(Log(),
              "Step 1 get oldWndSta = H\nUOI_NAME = WinSta0\n"
              "Step 2 get oldDesk = H\nUOI_NAME = Default\n"
              "Step 3 WinSta0 hWnsta = H\nUOI_NAME = WinSta0\n"
              "Step 4 Set Process Window Station done\nUOI_NAME = WinSta0\n"
              "Step 5 Open Input Desktop hDesk = H \nUOI_NAME = Winlogon\n"
              "Step 6 SetThreadDesktop done \nUOI_NAME = Winlogon\n"
              "All 6 steps completed successfully\n");
    EXPECT_EQ(ThreadDesktopName(), "Winlogon");
    EXPECT_EQ(platform::GetProcessWindowStation(), gStandby->gNewWindowStation);
    gate::FailNext("SetThreadDesktop", 6);
    EXPECT_TRUE(LeaveInteractiveDesktop());
    ExpectLogged("SetThreadDesktop: failed with error 6");
    EXPECT_EQ(platform::GetProcessWindowStation(), gStandby->gOldWindowStation);
    EXPECT_EQ(gStandby->gNewWindowStation, nullptr);
    EXPECT_NE(gStandby->gNewDesktop, nullptr) << "a desktop in use is kept for the next attempt";
    EXPECT_TRUE(ReturnToOldDesktop());
    EXPECT_EQ(ThreadDesktopName(), "Default");
    EXPECT_EQ(gStandby->gNewDesktop, nullptr);
    EXPECT_FALSE(IsInputDesktopCurrent());
    ExpectLogged("threadname and inputname are different\n");
    Put("no_user.txt", "");
    EXPECT_TRUE(AttachInputDesktop() && ReturnToOldDesktop());
    EXPECT_EQ(CountCalls("GetUserNameA"), 0U);
  });
}

bool EnterAndLeave() { return EnterInteractiveDesktop() && LeaveInteractiveDesktop(); }
bool SelectWinlogon() { return SelectDesktop("Winlogon", nullptr); }

TEST_F(InputDesktop, FailedCallIsReportedAndDecidesTheResult) {
  struct Row {
    bool (*operation)();
    const char* call;
    std::uint64_t skip;
    std::uint32_t error;
    bool result;
    const char* line;
  };
  constexpr auto kAttach = AttachInputDesktop;
  constexpr auto kIsCurrent = IsInputDesktopCurrent;
  constexpr Row kRows[] = {
      {EnterAndLeave, "GetProcessWindowStation", 0, 5, false, "GetProcessWindowStation: failed"},
      {EnterAndLeave, "GetThreadDesktop", 0, 5, false, "GetThreadDeskto: failed with error 5"},
      {EnterAndLeave, "OpenWindowStationA", 0, 5, false, "OpenWindowStation: failed"},
      {EnterAndLeave, "SetProcessWindowStation", 0, 5, false, "SetProcessWindowStation: failed"},
      {EnterAndLeave, "OpenInputDesktop", 0, 5, false, "OpenInputDesktop failed with error 5"},
      {EnterAndLeave, "SetThreadDesktop", 0, 5, false, "SetThreadDesktop: failed with error 5"},
      {EnterAndLeave, "SetProcessWindowStation", 1, 6, true, "SetProcessWindowStation: failed"},
      {EnterAndLeave, "CloseWindowStation", 0, 6, true, "CloseWindowStation: failed with error 6"},
      {kAttach, "GetThreadDesktop", 0, 5, true, "GetThreadDeskto: failed"},
      {kAttach, "OpenInputDesktop", 0, 5, true, "OpenInputDesktop failed"},
      {kAttach, "SetThreadDesktop", 0, 5, true, "SetThreadDesktop(hDesk): failed"},
      {kAttach, "GetProcessWindowStation", 0, 5, false, "GetProcessWindowStation: fail"},
      {kAttach, "GetUserNameA", 0, 5, false, "getusername error 5\n"},
      {kAttach, "GetUserNameA", 0, platform::kErrorNotLoggedOn, true,
       "SetThreadDesktop(hDesk) done \noldWndSta = H\nUsername  \n"},
      {SelectWinlogon, "OpenDesktopA", 0, 2, false,
       "Open Desktop name Winlogon\nOpenInputDesktop: failed with error 2"},
      {SelectWinlogon, "SetThreadDesktop", 0, 5, false, "SetThreadDesktop: failed with error 5"},
      {SelectWinlogon, kInfoCall, 2, 5, false, "ShowObjectName: failed with error 5"},
      {kIsCurrent, "OpenInputDesktop", 0, 170, true, "lastErrorCode: 170"},
      {kIsCurrent, "OpenInputDesktop", 0, 624, true, "lastErrorCode: 624"},
      {kIsCurrent, "OpenInputDesktop", 0, 5, false, "lastErrorCode H treating error\n"},
      {kIsCurrent, "GetThreadDesktop", 0, 6, false, "threadDesktop GetUserObjectInf"},
      {kIsCurrent, kInfoCall, 1, 6, false, "inputDesktopHandle GetUserObjectInformat"},
      {kIsCurrent, "CloseDesktop", 0, 6, true,
       "inputDesktopHandle H\nUOI_NAME = Default\nCloseDesktop: failed with error 6"},
  };
  for (const Row& row : kRows)
    OnNewThread([&row] {
      SCOPED_TRACE(row.line);
      gate::Arm();
      gate::FailEvery("Sleep(500)", gate::kFinishAtOnce);
      gate::FailNext(row.call, row.error, row.skip);
      EXPECT_EQ(row.operation(), row.result);
      ExpectLogged(row.line);
      EXPECT_EQ(Log().find("All 6 steps") != std::string::npos,
                row.operation == EnterAndLeave && row.result);
      EXPECT_EQ(CountCalls("Sleep"), row.error == 5 && row.call == std::string("GetUserNameA"));
    });
}

TEST_F(InputDesktop, SelectedDesktopReplacesThePreviousOne) {
  OnNewThread([] {
    platform::DesktopHandle current = nullptr;
    EXPECT_TRUE(SelectDesktop("Winlogon", &current));
    EXPECT_EQ(Log(),
              "Open Desktop name Winlogon\nStep 1 OpenInputDesktop H\nUOI_NAME = Winlogon\n"
              "Step 1 input new_desktop handle: H\nUOI_NAME = Winlogon\nStep 2 old_desktop H\n"
              "UOI_NAME = Default\nStep 3 Show Object Name success\n"
              "Step 4 SetThreadDesktop success\nAll 4 steps successful\nStep 2 SelectHDESK done\n"
              "Step 3 Successfully switched desktops to H\n");
    EXPECT_EQ(ThreadDesktopName(), "Winlogon");
    const platform::DesktopHandle first = current;
    EXPECT_TRUE(SelectDesktop(nullptr, &current));
    EXPECT_EQ(ThreadDesktopName(), "Default");
    EXPECT_FALSE(ShowObjectName(&first, nullptr)) << "it is still open";
    const platform::DesktopHandle second = current;
    gate::FailNext("SetThreadDesktop", 5);
    EXPECT_FALSE(SelectDesktop("Winlogon", &current));
    EXPECT_EQ(current, second);
    EXPECT_EQ(CountCalls("CloseDesktop"), 2U);
  });
}

}  // namespace
}  // namespace stewardry
