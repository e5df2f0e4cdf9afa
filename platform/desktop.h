// Window stations and desktops: which one a process and a thread sit on, and which one has the
// input. Handles are plain values here, not owners: whether one may be closed depends on how it was
// got, some live as long as the process, and a failed close is told. On Linux they are names in a
// table (platform/linux/desktop.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/handle.h"

namespace platform {

using UserObject = RawHandle;  // a window station or a desktop; null is none
using WindowStationHandle = UserObject;
using DesktopHandle = UserObject;

constexpr std::uint32_t kMaximumAllowed = 0x2000000;  // MAXIMUM_ALLOWED
constexpr std::uint32_t kGenericWrite = 0x40000000;   // GENERIC_WRITE
constexpr std::uint32_t kDesktopReadObjects = 0x01;   // DESKTOP_READOBJECTS
constexpr std::uint32_t kDesktopCreateWindow = 0x02;  // DESKTOP_CREATEWINDOW
constexpr std::uint32_t kDesktopCreateMenu = 0x04;    // DESKTOP_CREATEMENU
constexpr std::uint32_t kDesktopHookControl = 0x08;   // DESKTOP_HOOKCONTROL
constexpr std::uint32_t kDesktopEnumerate = 0x40;     // DESKTOP_ENUMERATE
constexpr std::uint32_t kDesktopWriteObjects = 0x80;  // DESKTOP_WRITEOBJECTS
constexpr std::uint32_t kDesktopSwitch = 0x100;       // DESKTOP_SWITCHDESKTOP
constexpr std::uint32_t kErrorBusy = 170;             // ERROR_BUSY
// While the input moves between two desktops. Winerror.h has no name for it.
constexpr std::uint32_t kErrorNoInputDesktop = 624;
constexpr std::uint32_t kErrorNotLoggedOn = 1245;  // ERROR_NOT_LOGGED_ON

constexpr std::uint32_t kPlatformWin9x = 1;  // VER_PLATFORM_WIN32_WINDOWS
constexpr std::uint32_t kPlatformWinNt = 2;  // VER_PLATFORM_WIN32_NT

struct WindowsVersion {
  std::uint32_t platformId;
  std::uint32_t major;
  std::uint32_t minor;
};
// GetVersionExA into a record of 148 bytes (OSVERSIONINFOA). False on failure, *version unchanged.
bool GetVersionExA(WindowsVersion* version);

// The process's and a thread's own; null on failure. Not to be closed.
WindowStationHandle GetProcessWindowStation();
DesktopHandle GetThreadDesktop(std::uint32_t threadId);

// OpenWindowStationA(name, FALSE, access); null on failure. The caller closes it.
WindowStationHandle OpenWindowStationA(const char* name, std::uint32_t access);
bool SetProcessWindowStation(WindowStationHandle station);
bool CloseWindowStation(WindowStationHandle station);

// OpenInputDesktop(0, FALSE, access) and OpenDesktopA(name, 0, FALSE, access): the desktop that has
// the input, or one by name, of the process's window station. Null on failure. The caller closes
// it; while a thread sits on it that fails with kErrorBusy.
DesktopHandle OpenInputDesktop(std::uint32_t access);
DesktopHandle OpenDesktopA(const char* name, std::uint32_t access);
// Puts the calling thread onto it.
bool SetThreadDesktop(DesktopHandle desktop);
bool CloseDesktop(DesktopHandle desktop);

constexpr int kUoiName = 2;     // UOI_NAME: a zero-terminated text
constexpr int kUoiUserSid = 4;  // UOI_USER_SID: no bytes where no user is attached
// GetUserObjectInformationA into `buffer` of `size` bytes. *needed gets what it takes; false with
// kErrorInsufficientBuffer if that is more.
bool GetUserObjectInformationA(UserObject object, int index, void* buffer, std::uint32_t size,
                               std::uint32_t* needed);

constexpr std::uint32_t kUserNameSize = 257;  // UNLEN + 1
// GetUserNameA: the calling thread's user, zero-terminated, into `name` of *size bytes.
bool GetUserNameA(char* name, std::uint32_t* size);

}  // namespace platform
