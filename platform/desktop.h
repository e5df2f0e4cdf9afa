// Window stations and desktops: those of a process and a thread, and the one that has the input.
// Handles are plain values instead of owners, because some must not be closed and a failed close is
// reported. On Linux they are names in a table (platform/linux/desktop.cpp).
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
// Stores the version of the system (GetVersionExA). Returns false on failure and leaves *version
// unchanged.
bool GetVersionExA(WindowsVersion* version);

// Return the window station of the process and the desktop of a thread; null on failure. The caller
// must not close them.
WindowStationHandle GetProcessWindowStation();
DesktopHandle GetThreadDesktop(std::uint32_t threadId);

// Opens a window station by name, not inheritable. Returns null on failure. The caller closes it.
WindowStationHandle OpenWindowStationA(const char* name, std::uint32_t access);
bool SetProcessWindowStation(WindowStationHandle station);
bool CloseWindowStation(WindowStationHandle station);

// Open the desktop that has the input, or one by name, of the process's window station. Return null
// on failure. The caller closes it; the close fails with kErrorBusy while a thread uses it.
DesktopHandle OpenInputDesktop(std::uint32_t access);
DesktopHandle OpenDesktopA(const char* name, std::uint32_t access);
// Makes it the desktop of the calling thread.
bool SetThreadDesktop(DesktopHandle desktop);
bool CloseDesktop(DesktopHandle desktop);

constexpr int kUoiName = 2;     // UOI_NAME: a zero-terminated text
constexpr int kUoiUserSid = 4;  // UOI_USER_SID: no bytes where no user is attached
// Stores information in `buffer` of `size` bytes and its size in *needed. Returns false with
// kErrorInsufficientBuffer if the buffer is too small.
bool GetUserObjectInformationA(UserObject object, int index, void* buffer, std::uint32_t size,
                               std::uint32_t* needed);

constexpr std::uint32_t kUserNameSize = 257;  // UNLEN + 1
// Stores the name of the calling thread's user in `name` of *size bytes, zero-terminated.
bool GetUserNameA(char* name, std::uint32_t* size);

}  // namespace platform
