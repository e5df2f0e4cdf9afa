// Desktops by handle and by name. The order of the lines is the order of the calls, so the side log
// shows how far an operation came.
#include "service/standby/input_desktop.h"

#include <cstring>
#include <utility>

#include "platform/error.h"
#include "platform/thread.h"
#include "service/diagnostics/side_log.h"
#include "service/standby/standby_state.h"

namespace stewardry {

namespace {

// All rights of a desktop except to record and play a journal.
constexpr std::uint32_t kLookAccess =
    platform::kDesktopReadObjects | platform::kDesktopCreateWindow | platform::kDesktopCreateMenu |
    platform::kDesktopHookControl | platform::kDesktopEnumerate | platform::kDesktopWriteObjects |
    platform::kDesktopSwitch;
constexpr std::uint32_t kPlayAccess = platform::kGenericWrite | kLookAccess;

template <class... Args>
void Log(std::string_view format, const Args&... args) {
  SideLog(kSideLogKeyboardMouse, format, args...);
}

// Reports the failure of the platform call just before. Keeps the last error, so that a caller's
// report of the same failure has the same reason.
void ReportFailure(const char* text) {
  const std::uint32_t error = platform::LastError();
  ReportLastError(kSideLogKeyboardMouse, text);
  platform::SetLastError(error);
}

bool Fail(const char* text) {
  ReportFailure(text);
  return false;
}

// Returns a handle as the lines show it. The platform's have 32 significant bits.
std::uint32_t Shown(platform::UserObject object) {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(object));
}

// Logs the line and the name of an object that a step has reached.
void ShowStep(std::string_view line, platform::UserObject object) {
  Log(line, Shown(object));
  (void)ShowObjectName(&object, nullptr);  // reports its own failure, which changes nothing
}

platform::DesktopHandle ThreadDesktop() {
  return platform::GetThreadDesktop(platform::GetCurrentThreadId());
}

bool EnterWindowStation() {
  gStandby->gNewWindowStation = platform::OpenWindowStationA("WinSta0", platform::kMaximumAllowed);
  if (gStandby->gNewWindowStation == nullptr) return Fail("OpenWindowStation:");
  ShowStep("Step 3 WinSta0 hWnsta = 0x%x\n", gStandby->gNewWindowStation);
  if (!platform::SetProcessWindowStation(gStandby->gNewWindowStation))
    return Fail("SetProcessWindowStation:");
  ShowStep("Step 4 Set Process Window Station done\n", gStandby->gNewWindowStation);
  return true;
}

bool EnterInputDesktop() {
  gStandby->gNewDesktop = platform::OpenInputDesktop(platform::kMaximumAllowed);
  if (gStandby->gNewDesktop == nullptr) return Fail("OpenInputDesktop");
  ShowStep("Step 5 Open Input Desktop hDesk = 0x%x \n", gStandby->gNewDesktop);
  if (!platform::SetThreadDesktop(gStandby->gNewDesktop)) return Fail("SetThreadDesktop:");
  ShowStep("Step 6 SetThreadDesktop done \n", gStandby->gNewDesktop);
  return true;
}

// Reports a failed step and goes on.
void MoveThreadToInputDesktop() {
  gStandby->gOldDesktop = ThreadDesktop();
  if (gStandby->gOldDesktop == nullptr) {
    ReportFailure("GetThreadDeskto:");  // fixed log text; its wording must not change
  } else {
    ShowStep("oldDesk = 0x%x\n", gStandby->gOldDesktop);
  }
  gStandby->gNewDesktop = platform::OpenInputDesktop(kPlayAccess);
  if (gStandby->gNewDesktop == nullptr) {
    ReportFailure("OpenInputDesktop");
  } else {
    ShowStep("OpenInputDesktop hDesk = 0x%x \n", gStandby->gNewDesktop);
  }
  if (!platform::SetThreadDesktop(gStandby->gNewDesktop)) {
    ReportFailure("SetThreadDesktop(hDesk):");
  } else {
    Log("SetThreadDesktop(hDesk) done \n");
  }
}

// A desktop that the thread could not leave cannot be closed; it is kept for the next attempt.
void CloseNewDesktop() {
  if (platform::CloseDesktop(gStandby->gNewDesktop)) gStandby->gNewDesktop = nullptr;
}

bool HasUser(platform::WindowStationHandle station) {
  std::uint32_t length = 0;
  // Fails for lack of a buffer if there is a user; the length alone counts.
  (void)platform::GetUserObjectInformationA(station, platform::kUoiUserSid, nullptr, 0, &length);
  return length != 0;
}

// Stores the user's name, empty if no user is logged on. Returns false with the last error set.
bool ReadUserName(char (&name)[platform::kUserNameSize]) {
  std::uint32_t size = sizeof name;
  if (platform::GetUserNameA(name, &size)) return true;
  name[0] = 0;
  return platform::LastError() == platform::kErrorNotLoggedOn;
}

void CloseReported(platform::DesktopHandle desktop) {
  if (!platform::CloseDesktop(desktop)) ReportFailure("CloseDesktop:");
}

// Returns the result while the input desktop cannot be opened: true if that is temporary, since the
// caller may still be on it; a later check decides.
bool JudgeRefusal() {
  const std::uint32_t error = platform::LastError();
  ReportFailure("OpenInputDesktop:");
  if (error == platform::kErrorBusy) {
    Log("OpenInputDesktop lastErrorCode: 170");
    return true;
  }
  if (error == platform::kErrorNoInputDesktop) {
    Log("OpenInputDesktop lastErrorCode: 624");
    return true;
  }
  Log("OpenInputDesktop lastErrorCode 0x%x treating error\n", error);
  return false;
}

bool ReadThreadDesktopName(ObjectName* name) {
  const platform::DesktopHandle desktop = ThreadDesktop();
  if (desktop == nullptr) ReportFailure("GetThreadDesktop");
  Log("threadDesktop Handle: 0x%x\n", Shown(desktop));
  if (ShowObjectName(&desktop, name)) return true;
  CloseReported(desktop);
  Log("threadDesktop GetUserObjectInformation failed treating error\n");
  return false;
}

// Closes the desktop in every case.
bool ReadInputDesktopName(platform::DesktopHandle desktop, ObjectName* name) {
  Log("inputDesktopHandle 0x%x\n", Shown(desktop));
  const bool named = ShowObjectName(&desktop, name);
  CloseReported(desktop);
  if (!named) Log("inputDesktopHandle GetUserObjectInformation failed treating error\n");
  return named;
}

}  // namespace

void ReadWindowsVersion() {
  platform::WindowsVersion version{};  // stays zero on failure: no family, no version
  (void)platform::GetVersionExA(&version);
  gStandby->gPlatformId = version.platformId;
  gStandby->gMajorVersion = version.major;
  gStandby->gMinorVersion = version.minor;
}

bool IsWin9x() { return gStandby->gPlatformId == platform::kPlatformWin9x; }

bool IsWinNT() { return gStandby->gPlatformId == platform::kPlatformWinNt; }

bool EnterInteractiveDesktop() {
  ReadWindowsVersion();
  gStandby->gOldWindowStation = platform::GetProcessWindowStation();
  if (gStandby->gOldWindowStation == nullptr) return Fail("GetProcessWindowStation:");
  ShowStep("Step 1 get oldWndSta = 0x%x\n", gStandby->gOldWindowStation);
  gStandby->gOldDesktop = ThreadDesktop();
  if (gStandby->gOldDesktop == nullptr) return Fail("GetThreadDeskto:");
  ShowStep("Step 2 get oldDesk = 0x%x\n", gStandby->gOldDesktop);
  if (!EnterWindowStation() || !EnterInputDesktop()) return false;
  Log("All 6 steps completed successfully\n");
  return true;
}

bool LeaveInteractiveDesktop() {
  if (!platform::SetThreadDesktop(gStandby->gOldDesktop)) ReportFailure("SetThreadDesktop:");
  CloseNewDesktop();
  if (!platform::SetProcessWindowStation(gStandby->gOldWindowStation))
    ReportFailure("SetProcessWindowStation:");
  if (!platform::CloseWindowStation(gStandby->gNewWindowStation)) {
    ReportFailure("CloseWindowStation:");
  } else {
    gStandby->gNewWindowStation = nullptr;
  }
  return true;
}

bool AttachInputDesktop() {
  ReadWindowsVersion();
  MoveThreadToInputDesktop();
  gStandby->gOldWindowStation = platform::GetProcessWindowStation();
  if (gStandby->gOldWindowStation == nullptr) return Fail("GetProcessWindowStation:");
  Log("oldWndSta = 0x%x\n", Shown(gStandby->gOldWindowStation));
  char user[platform::kUserNameSize] = "";
  if (HasUser(gStandby->gOldWindowStation) && !ReadUserName(user)) {
    Log("getusername error %d\n", platform::LastError());
    LeaveInteractiveDesktop();
    constexpr int kLine = 79;  // fixed log text; the number is not a line of this file
    Log("Sleep line %d\n", kLine);
    platform::Sleep(500);
    return false;
  }
  Log("Username %s \n", static_cast<const char*>(user));
  return true;
}

bool ReturnToOldDesktop() {
  if (!platform::SetThreadDesktop(gStandby->gOldDesktop))
    ReportFailure("SetThreadDesktop(oldDesk):");
  CloseNewDesktop();
  return true;
}

bool ShowObjectName(const platform::UserObject* handle, ObjectName* name) {
  ObjectName text{};
  std::uint32_t needed = 0;
  if (!platform::GetUserObjectInformationA(*handle, platform::kUoiName, text.data(), text.size(),
                                           &needed))
    return Fail("GetUserObjectInformation(hDesk):");
  text.back() = 0;
  Log("UOI_NAME = %s\n", static_cast<const char*>(text.data()));
  if (name != nullptr) *name = text;
  return true;
}

platform::DesktopHandle OpenDesktopByName(const char* name) {
  if (name != nullptr) {
    Log("Open Desktop name %s\n", name);
    return platform::OpenDesktopA(name, kPlayAccess);
  }
  Log("Open Desktop no name desktop\n");
  return platform::OpenInputDesktop(kPlayAccess);
}

bool SelectHDESK(platform::DesktopHandle desktop) {
  if (!IsWinNT()) return true;
  ShowStep("Step 1 input new_desktop handle: 0x%x\n", desktop);
  const platform::DesktopHandle oldDesktop = ThreadDesktop();
  if (oldDesktop == nullptr) ReportFailure("GetThreadDesktop:");
  Log("Step 2 old_desktop 0x%x\n", Shown(oldDesktop));
  if (!ShowObjectName(&oldDesktop, nullptr)) return Fail("ShowObjectName:");
  Log("Step 3 Show Object Name success\n");
  if (!platform::SetThreadDesktop(desktop)) return Fail("SetThreadDesktop:");
  Log("Step 4 SetThreadDesktop success\n");
  Log("All 4 steps successful\n");
  return true;
}

bool SelectDesktop(const char* name, platform::DesktopHandle* current) {
  if (!IsWinNT()) {
    Log("(name == NULL) return val 0x%x\n", name == nullptr ? 1 : 0);
    return name == nullptr;
  }
  const platform::DesktopHandle desktop = OpenDesktopByName(name);
  if (desktop == nullptr) return Fail("OpenInputDesktop:");
  ShowStep("Step 1 OpenInputDesktop 0x%x\n", desktop);
  if (!SelectHDESK(desktop)) {
    CloseReported(desktop);
    return false;
  }
  Log("Step 2 SelectHDESK done\n");
  if (current != nullptr) {
    const platform::DesktopHandle before = std::exchange(*current, desktop);
    // The thread is on the new desktop, so the old one can be closed.
    if (before != nullptr) (void)platform::CloseDesktop(before);
  }
  Log("Step 3 Successfully switched desktops to 0x%x\n", Shown(desktop));
  return true;
}

bool IsInputDesktopCurrent() {
  if (!IsWinNT()) return true;
  ObjectName threadName;
  if (!ReadThreadDesktopName(&threadName)) return false;
  const platform::DesktopHandle inputDesktop = platform::OpenInputDesktop(kLookAccess);
  if (inputDesktop == nullptr) return JudgeRefusal();
  ObjectName inputName;
  if (!ReadInputDesktopName(inputDesktop, &inputName)) return false;
  if (std::strcmp(threadName.data(), inputName.data()) == 0) return true;
  Log("threadname and inputname are different\n");
  return false;
}

}  // namespace stewardry
