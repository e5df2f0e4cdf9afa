#include "platform/desktop.h"

#include "platform/windows/runtime/windows_api.h"
// This needs windows.h.
#include <lmcons.h>

namespace platform {

static_assert(kMaximumAllowed == MAXIMUM_ALLOWED && kErrorBusy == ERROR_BUSY &&
              kErrorNotLoggedOn == ERROR_NOT_LOGGED_ON);
static_assert(kGenericWrite == GENERIC_WRITE && kDesktopReadObjects == DESKTOP_READOBJECTS &&
              kDesktopCreateWindow == DESKTOP_CREATEWINDOW &&
              kDesktopCreateMenu == DESKTOP_CREATEMENU &&
              kDesktopHookControl == DESKTOP_HOOKCONTROL &&
              kDesktopEnumerate == DESKTOP_ENUMERATE &&
              kDesktopWriteObjects == DESKTOP_WRITEOBJECTS &&
              kDesktopSwitch == DESKTOP_SWITCHDESKTOP && kUserNameSize == UNLEN + 1);
static_assert(kPlatformWin9x == VER_PLATFORM_WIN32_WINDOWS &&
              kPlatformWinNt == VER_PLATFORM_WIN32_NT);
static_assert(kUoiName == UOI_NAME && kUoiUserSid == UOI_USER_SID);
static_assert(sizeof(OSVERSIONINFOA) == 148);

namespace {

HWINSTA Station(WindowStationHandle station) { return static_cast<HWINSTA>(station); }
HDESK Desktop(DesktopHandle desktop) { return static_cast<HDESK>(desktop); }

}  // namespace

bool GetVersionExA(WindowsVersion* version) {
  OSVERSIONINFOA record{};
  record.dwOSVersionInfoSize = sizeof record;
  if (!::GetVersionExA(&record)) return false;
  *version = {record.dwPlatformId, record.dwMajorVersion, record.dwMinorVersion};
  return true;
}

WindowStationHandle GetProcessWindowStation() { return ::GetProcessWindowStation(); }

DesktopHandle GetThreadDesktop(std::uint32_t threadId) { return ::GetThreadDesktop(threadId); }

WindowStationHandle OpenWindowStationA(const char* name, std::uint32_t access) {
  return ::OpenWindowStationA(name, FALSE, access);
}

bool SetProcessWindowStation(WindowStationHandle station) {
  return ::SetProcessWindowStation(Station(station)) != FALSE;
}

bool CloseWindowStation(WindowStationHandle station) {
  return ::CloseWindowStation(Station(station)) != FALSE;
}

DesktopHandle OpenInputDesktop(std::uint32_t access) {
  return ::OpenInputDesktop(0, FALSE, access);
}

DesktopHandle OpenDesktopA(const char* name, std::uint32_t access) {
  return ::OpenDesktopA(name, 0, FALSE, access);
}

bool SetThreadDesktop(DesktopHandle desktop) {
  return ::SetThreadDesktop(Desktop(desktop)) != FALSE;
}

bool CloseDesktop(DesktopHandle desktop) { return ::CloseDesktop(Desktop(desktop)) != FALSE; }

bool GetUserObjectInformationA(UserObject object, int index, void* buffer, std::uint32_t size,
                               std::uint32_t* needed) {
  DWORD length = 0;
  const BOOL done = ::GetUserObjectInformationA(object, index, buffer, size, &length);
  *needed = length;
  return done != FALSE;
}

bool GetUserNameA(char* name, std::uint32_t* size) {
  DWORD length = *size;
  const BOOL done = ::GetUserNameA(name, &length);
  *size = length;
  return done != FALSE;
}

}  // namespace platform
