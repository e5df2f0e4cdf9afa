// Desktops by handle and by name. The order of the lines is the order of the calls, so that the
// side log tells how far an operation came.
#include "service/standby/input_desktop.h"

#include <cstring>
#include <utility>

#include "platform/error.h"
#include "platform/thread.h"
#include "service/diagnostics/side_log.h"

namespace stewardry {

std::uint32_t gPlatformId = 0;
std::uint32_t gMajorVersion = 0;
std::uint32_t gMinorVersion = 0;
platform::WindowStationHandle gOldWindowStation = nullptr;
platform::WindowStationHandle gNewWindowStation = nullptr;
platform::DesktopHandle gOldDesktop = nullptr;
platform::DesktopHandle gNewDesktop = nullptr;

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

// Directly after the failing call. Always false. The last error stands as it was: who reports the
// same failure in other words tells the same reason.
bool Report(const char* text) {
  const std::uint32_t error = platform::LastError();
  ReportLastError(kSideLogKeyboardMouse, text);
  platform::SetLastError(error);
  return false;
}

// A handle as the lines tell it. The platform's have 32 significant bits.
std::uint32_t Shown(platform::UserObject object) {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(object));
}

// The line and the name of an object that a step has reached; a name that can't be had is reported
// and changes nothing.
void ShowStep(std::string_view line, platform::UserObject object) {
  Log(line, Shown(object));
  (void)ShowObjectName(&object, nullptr);
}

platform::DesktopHandle ThreadDesktop() {
  return platform::GetThreadDesktop(platform::GetCurrentThreadId());
}

bool EnterWindowStation() {
  gNewWindowStation = platform::OpenWindowStationA("WinSta0", platform::kMaximumAllowed);
  if (gNewWindowStation == nullptr) return Report("OpenWindowStation:");
  ShowStep("Step 3 WinSta0 hWnsta = 0x%x\n", gNewWindowStation);
  if (!platform::SetProcessWindowStation(gNewWindowStation))
    return Report("SetProcessWindowStation:");
  ShowStep("Step 4 Set Process Window Station done\n", gNewWindowStation);
  return true;
}

bool EnterInputDesktop() {
  gNewDesktop = platform::OpenInputDesktop(platform::kMaximumAllowed);
  if (gNewDesktop == nullptr) return Report("OpenInputDesktop");
  ShowStep("Step 5 Open Input Desktop hDesk = 0x%x \n", gNewDesktop);
  if (!platform::SetThreadDesktop(gNewDesktop)) return Report("SetThreadDesktop:");
  ShowStep("Step 6 SetThreadDesktop done \n", gNewDesktop);
  return true;
}

// A failed step is reported, and the next one follows.
void MoveThreadToInputDesktop() {
  gOldDesktop = ThreadDesktop();
  if (gOldDesktop == nullptr) {
    Report("GetThreadDeskto:");
  } else {
    ShowStep("oldDesk = 0x%x\n", gOldDesktop);
  }
  gNewDesktop = platform::OpenInputDesktop(kPlayAccess);
  if (gNewDesktop == nullptr) {
    Report("OpenInputDesktop");
  } else {
    ShowStep("OpenInputDesktop hDesk = 0x%x \n", gNewDesktop);
  }
  if (!platform::SetThreadDesktop(gNewDesktop)) {
    Report("SetThreadDesktop(hDesk):");
  } else {
    Log("SetThreadDesktop(hDesk) done \n");
  }
}

// A thread that couldn't leave it still holds it open; it is kept for the next way back.
void CloseNewDesktop() {
  if (platform::CloseDesktop(gNewDesktop)) gNewDesktop = nullptr;
}

bool HasUser(platform::WindowStationHandle station) {
  std::uint32_t length = 0;
  // It fails for want of a buffer where there is a user; the length alone tells.
  (void)platform::GetUserObjectInformationA(station, platform::kUoiUserSid, nullptr, 0, &length);
  return length != 0;
}

// The user's name, empty where nobody is logged on. False with the last error set.
bool ReadUserName(char (&name)[platform::kUserNameSize]) {
  std::uint32_t size = sizeof name;
  if (platform::GetUserNameA(name, &size)) return true;
  name[0] = 0;
  return platform::LastError() == platform::kErrorNotLoggedOn;
}

void CloseReported(platform::DesktopHandle desktop) {
  if (!platform::CloseDesktop(desktop)) Report("CloseDesktop:");
}

// The result while the input desktop can't be opened. The caller hasn't lost it by that: input goes
// on as if the names were equal, and a later look tells.
bool JudgeRefusal() {
  const std::uint32_t error = platform::LastError();
  Report("OpenInputDesktop:");
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
  if (desktop == nullptr) Report("GetThreadDesktop");
  Log("threadDesktop Handle: 0x%x\n", Shown(desktop));
  if (ShowObjectName(&desktop, name)) return true;
  CloseReported(desktop);
  Log("threadDesktop GetUserObjectInformation failed treating error\n");
  return false;
}

// Closes the desktop whichever way it goes.
bool ReadInputDesktopName(platform::DesktopHandle desktop, ObjectName* name) {
  Log("inputDesktopHandle 0x%x\n", Shown(desktop));
  const bool named = ShowObjectName(&desktop, name);
  CloseReported(desktop);
  if (!named) Log("inputDesktopHandle GetUserObjectInformation failed treating error\n");
  return named;
}

}  // namespace

void ReadWindowsVersion() {
  platform::WindowsVersion version{};  // what a failure leaves: no family, no version
  (void)platform::GetVersionExA(&version);
  gPlatformId = version.platformId;
  gMajorVersion = version.major;
  gMinorVersion = version.minor;
}

bool IsWin9x() { return gPlatformId == platform::kPlatformWin9x; }

bool IsWinNT() { return gPlatformId == platform::kPlatformWinNt; }

bool EnterInteractiveDesktop() {
  ReadWindowsVersion();
  gOldWindowStation = platform::GetProcessWindowStation();
  if (gOldWindowStation == nullptr) return Report("GetProcessWindowStation:");
  ShowStep("Step 1 get oldWndSta = 0x%x\n", gOldWindowStation);
  gOldDesktop = ThreadDesktop();
  if (gOldDesktop == nullptr) return Report("GetThreadDeskto:");
  ShowStep("Step 2 get oldDesk = 0x%x\n", gOldDesktop);
  if (!EnterWindowStation() || !EnterInputDesktop()) return false;
  Log("All 6 steps completed successfully\n");
  return true;
}

bool LeaveInteractiveDesktop() {
  if (!platform::SetThreadDesktop(gOldDesktop)) Report("SetThreadDesktop:");
  CloseNewDesktop();
  if (!platform::SetProcessWindowStation(gOldWindowStation)) Report("SetProcessWindowStation:");
  if (!platform::CloseWindowStation(gNewWindowStation)) {
    Report("CloseWindowStation:");
  } else {
    gNewWindowStation = nullptr;
  }
  return true;
}

bool AttachInputDesktop() {
  ReadWindowsVersion();
  MoveThreadToInputDesktop();
  gOldWindowStation = platform::GetProcessWindowStation();
  if (gOldWindowStation == nullptr) return Report("GetProcessWindowStation:");
  Log("oldWndSta = 0x%x\n", Shown(gOldWindowStation));
  char user[platform::kUserNameSize] = "";
  if (HasUser(gOldWindowStation) && !ReadUserName(user)) {
    Log("getusername error %d\n", platform::LastError());
    LeaveInteractiveDesktop();
    constexpr int kLine = 79;  // what the line has always told
    Log("Sleep line %d\n", kLine);
    platform::Sleep(500);
    return false;
  }
  Log("Username %s \n", static_cast<const char*>(user));
  return true;
}

bool ReturnToOldDesktop() {
  if (!platform::SetThreadDesktop(gOldDesktop)) Report("SetThreadDesktop(oldDesk):");
  CloseNewDesktop();
  return true;
}

bool ShowObjectName(const platform::UserObject* handle, ObjectName* name) {
  ObjectName text{};
  std::uint32_t needed = 0;
  if (!platform::GetUserObjectInformationA(*handle, platform::kUoiName, text.data(), text.size(),
                                           &needed))
    return Report("GetUserObjectInformation(hDesk):");
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
  if (oldDesktop == nullptr) Report("GetThreadDesktop:");
  Log("Step 2 old_desktop 0x%x\n", Shown(oldDesktop));
  if (!ShowObjectName(&oldDesktop, nullptr)) return Report("ShowObjectName:");
  Log("Step 3 Show Object Name success\n");
  if (!platform::SetThreadDesktop(desktop)) return Report("SetThreadDesktop:");
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
  if (desktop == nullptr) return Report("OpenInputDesktop:");
  ShowStep("Step 1 OpenInputDesktop 0x%x\n", desktop);
  if (!SelectHDESK(desktop)) {
    CloseReported(desktop);
    return false;
  }
  Log("Step 2 SelectHDESK done\n");
  if (current != nullptr) {
    const platform::DesktopHandle before = std::exchange(*current, desktop);
    // The thread has left it, so nothing holds it open.
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
