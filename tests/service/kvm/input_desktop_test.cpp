// Which desktop a thread sits on after each operation, what the side log tells of the way there,
// and what a failing step leaves.
#include "service/kvm/input_desktop.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/thread.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {
namespace {

namespace gate = platform::gate;

constexpr char kSideLog[] = "C:\\ProgramData\\Corvane\\Stewardry\\tavrinKeyboardMouseLog.log";
constexpr char kInfoCall[] = "GetUserObjectInformationA";

class InputDesktop : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    gPlatformId = platform::kPlatformWinNt;
    gOldWindowStation = gNewWindowStation = gOldDesktop = gNewDesktop = nullptr;
    gate::FailEvery("Sleep(500)", gate::kFinishAtOnce);
  }

  // Every test runs on a thread of its own, which begins on the default desktop.
  template <class Body>
  static void OnOwnThread(Body body) {
    std::thread(body).join();
  }
  static void GiveInputTo(const char* desktop) {
    std::ofstream(lab() + "/input_desktop.txt") << desktop;
  }
  static void NewLog() { std::filesystem::remove(platform::NativePath(kSideLog)); }
  // The side log's lines without their times, handles as "H".
  static std::string Log() {
    std::string text = FileText(kSideLog), log;
    for (std::size_t at = 0, end; at < text.size(); at = end) {
      end = std::min(text.find('\n', at), text.size() - 1) + 1;
      std::string line = text.substr(at, end - at);
      if (line.size() > 26 && line[24] == ':') line.erase(0, 26);
      const std::size_t handle = line.find("0x");
      if (handle != std::string::npos)
        line.replace(handle, line.find_first_not_of("x0123456789abcdef", handle) - handle, "H");
      log += line;
    }
    return log;
  }
  static std::string ThreadDesktopName() {
    const auto desktop = platform::GetThreadDesktop(platform::GetCurrentThreadId());
    ObjectName name{};
    return ShowObjectName(&desktop, &name) ? name.data() : "";
  }
  static std::size_t Count(const std::string& call) {
    std::size_t count = 0;
    for (const std::string& entry : gate::Trace())
      if (entry.find(call + "(") == 0) ++count;
    return count;
  }
};

TEST_F(InputDesktop, TheWayInAndBackLosesAHandleOrAStep) {
  GiveInputTo("Winlogon");
  OnOwnThread([] {
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
    EXPECT_EQ(platform::GetProcessWindowStation(), gNewWindowStation);
    EXPECT_TRUE(LeaveInteractiveDesktop());
    EXPECT_EQ(ThreadDesktopName(), "Default");
    EXPECT_EQ(platform::GetProcessWindowStation(), gOldWindowStation);
    EXPECT_EQ(gNewDesktop, nullptr);
    EXPECT_EQ(gNewWindowStation, nullptr);
    EXPECT_EQ(Log().find("failed with error"), std::string::npos) << Log();
  });
  EXPECT_EQ(Count("OpenInputDesktop"), Count("CloseDesktop"));
  EXPECT_EQ(Count("OpenWindowStationA"), Count("CloseWindowStation"));
}

TEST_F(InputDesktop, AFailedStepOfTheWayInIsSilentOrGoesOn) {
  struct Row {
    const char* call;
    const char* report;
    bool stationSet;
  };
  constexpr Row kRows[] = {
      {"GetProcessWindowStation", "GetProcessWindowStation: failed with error 5", false},
      {"GetThreadDesktop", "GetThreadDeskto: failed with error 5", false},
      {"OpenWindowStationA", "OpenWindowStation: failed with error 5", false},
      {"SetProcessWindowStation", "SetProcessWindowStation: failed with error 5", false},
      {"OpenInputDesktop", "OpenInputDesktop failed with error 5", true},
      {"SetThreadDesktop", "SetThreadDesktop: failed with error 5", true},
  };
  for (const Row& row : kRows)
    OnOwnThread([&row] {
      gOldDesktop = gNewDesktop = nullptr;
      NewLog();
      gate::FailNext(row.call, 5);
      EXPECT_FALSE(EnterInteractiveDesktop());
      EXPECT_EQ(CountOf(Log(), " failed with error"), 1U) << Log();
      EXPECT_NE(Log().find(row.report), std::string::npos) << Log();
      EXPECT_EQ(Log().find("All 6 steps"), std::string::npos);
      EXPECT_EQ(platform::GetProcessWindowStation() == gNewWindowStation, row.stationSet);
      EXPECT_EQ(ThreadDesktopName(), "Default");
      LeaveInteractiveDesktop();
    });
}

TEST_F(InputDesktop, AFailedStepOfTheWayBackKeepsTheOthersFromRunning) {
  constexpr const char* kRows[][2] = {
      {"SetThreadDesktop", "SetThreadDesktop: failed with error 6"},
      {"SetProcessWindowStation", "SetProcessWindowStation: failed with error 6"},
      {"CloseWindowStation", "CloseWindowStation: failed with error 6"},
  };
  for (const auto& [call, report] : kRows)
    OnOwnThread([call = call, report = report] {
      ASSERT_TRUE(EnterInteractiveDesktop());
      NewLog();
      gate::FailNext(call, 6);
      EXPECT_TRUE(LeaveInteractiveDesktop());
      EXPECT_NE(Log().find(report), std::string::npos) << Log();
      // What couldn't be closed is kept for the next way back.
      if (call == std::string("SetThreadDesktop")) {
        EXPECT_NE(gNewDesktop, nullptr);
        EXPECT_TRUE(ReturnToOldDesktop());
      }
      EXPECT_EQ(gNewDesktop, nullptr);
      EXPECT_EQ(ThreadDesktopName(), "Default");
    });
}

TEST_F(InputDesktop, AnAttachedThreadSitsElsewhereOrItsUserIsntTold) {
  GiveInputTo("Screen-saver");
  OnOwnThread([] {
    EXPECT_TRUE(AttachInputDesktop());
    char user[257];
    std::uint32_t size = sizeof user;
    ASSERT_TRUE(platform::GetUserNameA(user, &size));
    EXPECT_EQ(Log(),
              "oldDesk = H\nUOI_NAME = Default\nOpenInputDesktop hDesk = H \n"
              "UOI_NAME = Screen-saver\nSetThreadDesktop(hDesk) done \noldWndSta = H\nUsername " +
                  std::string(user) + " \n");
    EXPECT_EQ(ThreadDesktopName(), "Screen-saver");
    EXPECT_TRUE(ReturnToOldDesktop());
    EXPECT_EQ(ThreadDesktopName(), "Default");
    EXPECT_EQ(gNewDesktop, nullptr);
  });
}

TEST_F(InputDesktop, AFailureOnTheLighterWayEndsItTooEarlyOrTooLate) {
  struct Row {
    const char* call;
    std::uint32_t error;
    bool result;
    const char* line;
    const char* lastLine;
  };
  constexpr Row kRows[] = {
      {"GetThreadDesktop", 5, true, "GetThreadDeskto: failed with error 5", "Username "},
      {"OpenInputDesktop", 5, true, "OpenInputDesktop failed with error 5", "Username "},
      {"SetThreadDesktop", 5, true, "SetThreadDesktop(hDesk): failed with error 5", "Username "},
      {"GetProcessWindowStation", 5, false, "GetProcessWindowStation: failed with error 5", ""},
      {"GetUserNameA", 5, false, "getusername error 5\n", "Sleep line 79\n"},
      {"GetUserNameA", platform::kErrorNotLoggedOn, true, "Username  \n", "Username  \n"},
  };
  for (const Row& row : kRows)
    OnOwnThread([&row] {
      NewLog();
      gate::FailNext(row.call, row.error);
      EXPECT_EQ(AttachInputDesktop(), row.result) << row.call;
      EXPECT_NE(Log().find(row.line), std::string::npos) << Log();
      EXPECT_NE(Log().find(row.lastLine), std::string::npos) << Log();
      EXPECT_EQ(ThreadDesktopName(), "Default");
      ReturnToOldDesktop();
      gOldDesktop = nullptr;
    });
  EXPECT_EQ(Count("Sleep"), 1U);
  // Without a user attached nobody asks for a name.
  std::ofstream(lab() + "/no_user.txt") << "";
  const std::size_t asked = Count("GetUserNameA");
  OnOwnThread([] { EXPECT_TRUE(AttachInputDesktop() && ReturnToOldDesktop()); });
  EXPECT_EQ(Count("GetUserNameA"), asked);
}

TEST_F(InputDesktop, SelectingADesktopLeaksOneOrSitsOnAClosedOne) {
  OnOwnThread([] {
    platform::DesktopHandle current = nullptr;
    EXPECT_TRUE(SelectDesktop("Winlogon", &current));
    EXPECT_EQ(ThreadDesktopName(), "Winlogon");
    const platform::DesktopHandle first = current;
    GiveInputTo("Default");
    EXPECT_TRUE(SelectDesktop(nullptr, &current));
    EXPECT_EQ(ThreadDesktopName(), "Default");
    EXPECT_NE(current, first);
    EXPECT_FALSE(ShowObjectName(&first, nullptr)) << "it is still open";
    NewLog();
    EXPECT_FALSE(SelectDesktop("No such desktop", &current));
    EXPECT_NE(
        Log().find("Open Desktop name No such desktop\nOpenInputDesktop: failed with error 2"),
        std::string::npos)
        << Log();
    for (const auto& [call, skip] : {std::pair{"SetThreadDesktop", 0}, {kInfoCall, 2}}) {
      NewLog();
      const std::size_t closed = Count("CloseDesktop");
      gate::FailNext(call, 5, static_cast<std::uint64_t>(skip));
      const platform::DesktopHandle before = current;
      EXPECT_FALSE(SelectDesktop("Winlogon", &current));
      EXPECT_EQ(current, before);
      EXPECT_EQ(Count("CloseDesktop"), closed + 1);
      EXPECT_EQ(ThreadDesktopName(), "Default");
    }
    EXPECT_NE(Log().find("ShowObjectName: failed with error 5"), std::string::npos) << Log();
    NewLog();
    EXPECT_TRUE(SelectDesktop("Screen-saver", nullptr));
    EXPECT_EQ(Log(),
              "Open Desktop name Screen-saver\nStep 1 OpenInputDesktop H\nUOI_NAME = Screen-saver\n"
              "Step 1 input new_desktop handle: H\nUOI_NAME = Screen-saver\nStep 2 old_desktop H\n"
              "UOI_NAME = Default\nStep 3 Show Object Name success\n"
              "Step 4 SetThreadDesktop success\nAll 4 steps successful\nStep 2 SelectHDESK done\n"
              "Step 3 Successfully switched desktops to H\n");
  });
}

TEST_F(InputDesktop, AnotherDesktopIsTakenForTheInputs) {
  struct Row {
    const char* input;
    const char* failing;
    std::uint64_t skip;
    std::uint32_t error;
    bool current;
    const char* line;
  };
  constexpr Row kRows[] = {
      {"Default", nullptr, 0, 0, true, "inputDesktopHandle H\nUOI_NAME = Default\n"},
      {"Winlogon", nullptr, 0, 0, false, "threadname and inputname are different\n"},
      {"Winlogon", "OpenInputDesktop", 0, 170, true, "OpenInputDesktop lastErrorCode: 170"},
      {"Winlogon", "OpenInputDesktop", 0, 624, true, "OpenInputDesktop lastErrorCode: 624"},
      {"Default", "OpenInputDesktop", 0, 5, false,
       "OpenInputDesktop lastErrorCode H treating error\n"},
      {"Default", "GetThreadDesktop", 0, 6, false,
       "threadDesktop GetUserObjectInformation failed treating error\n"},
      {"Default", kInfoCall, 0, 6, false,
       "threadDesktop GetUserObjectInformation failed treating error\n"},
      {"Default", kInfoCall, 1, 6, false,
       "inputDesktopHandle GetUserObjectInformation failed treating error\n"},
      {"Default", "CloseDesktop", 0, 6, true, "CloseDesktop: failed with error 6"},
  };
  for (const Row& row : kRows) {
    GiveInputTo(row.input);
    NewLog();
    gate::Arm();
    if (row.failing != nullptr) gate::FailNext(row.failing, row.error, row.skip);
    OnOwnThread([&row] { EXPECT_EQ(IsInputDesktopCurrent(), row.current) << Log(); });
    EXPECT_NE(Log().find(row.line), std::string::npos) << Log();
    EXPECT_LE(Count("OpenInputDesktop"), Count("CloseDesktop") + (row.error != 0 ? 1 : 0));
  }
}

TEST_F(InputDesktop, APlatformWithoutDesktopsIsAskedForThem) {
  gate::FailNext("GetVersionExA", 31);
  ReadWindowsVersion();
  EXPECT_FALSE(IsWinNT() || IsWin9x());
  EXPECT_EQ(gMajorVersion + gMinorVersion, 0U);
  gPlatformId = platform::kPlatformWin9x;
  EXPECT_TRUE(IsWin9x());
  EXPECT_TRUE(IsInputDesktopCurrent());
  EXPECT_TRUE(SelectHDESK(nullptr));
  EXPECT_TRUE(SelectDesktop(nullptr, nullptr));
  EXPECT_FALSE(SelectDesktop("Default", nullptr));
  EXPECT_EQ(Log(), "(name == NULL) return val H\n(name == NULL) return val H\n");
  EXPECT_EQ(Count("GetThreadDesktop") + Count("OpenDesktopA"), 0U);
  ReadWindowsVersion();
  EXPECT_TRUE(IsWinNT());
}

TEST_F(InputDesktop, ALongNameIsWrittenPastItsRoom) {
  std::array<char, sizeof(ObjectName) + 1> room;
  room.back() = '!';
  const auto desktop = platform::GetThreadDesktop(platform::GetCurrentThreadId());
  ObjectName name;
  name.fill('!');
  gate::FailNext(kInfoCall, 122);
  EXPECT_FALSE(ShowObjectName(&desktop, &name));
  EXPECT_EQ(name[0], '!') << "a failure leaves the text alone";
  EXPECT_TRUE(ShowObjectName(&desktop, &name));
  EXPECT_STREQ(name.data(), "Default");
}

}  // namespace
}  // namespace stewardry
