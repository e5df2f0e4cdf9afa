// Puts the calling thread onto the desktop that has the input at this moment: the default one, the
// logon screen or a secure desktop. No flow of the service runs these operations, since its input
// reaches the console through the agent; they stand ready for a caller. The process-wide handles
// have no lock: the family is for one thread at a time. All lines go to channel 0 of the side log,
// a failing call with the platform's reason.
#pragma once

#include <array>
#include <cstdint>

#include "platform/desktop.h"

namespace stewardry {

// What GetVersionExA has told; zero before ReadWindowsVersion.
extern std::uint32_t gPlatformId;
extern std::uint32_t gMajorVersion;
extern std::uint32_t gMinorVersion;

// The process's window station before, and WinSta0; the thread's desktop before, and the input
// desktop. Null before an operation below has set them. The old ones belong to the platform, the
// new ones to this family: going back closes them and sets them to null. To go in twice without
// going back loses the first pair.
extern platform::WindowStationHandle gOldWindowStation;
extern platform::WindowStationHandle gNewWindowStation;
extern platform::DesktopHandle gOldDesktop;
extern platform::DesktopHandle gNewDesktop;

// A window station's or a desktop's name, zero-terminated, cut to fit.
using ObjectName = std::array<char, 256>;

// Reads platform id and version; all three are 0 after a failure.
void ReadWindowsVersion();
// The platform's family, as ReadWindowsVersion has found it; neither before it was called.
bool IsWin9x();
bool IsWinNT();

// Moves the process onto WinSta0 and the calling thread onto the input desktop, both with all the
// access that is allowed. The first failure gives false, and what was done stays done.
bool EnterInteractiveDesktop();
// Goes back to where both were before. Always true; a failing step is reported and the next one
// follows.
bool LeaveInteractiveDesktop();

// The lighter way, on the thread alone: onto the input desktop, then a look whether its window
// station has a user. False without a window station, or if the user's name can't be read for
// another reason than that nobody is logged on; in that case half a second later.
bool AttachInputDesktop();
// The way back from AttachInputDesktop. Always true.
bool ReturnToOldDesktop();

// Logs the name of the object that *handle is, and copies it to *name unless that is null. False
// after a reported failure, *name unchanged.
bool ShowObjectName(const platform::UserObject* handle, ObjectName* name);

// Opens a desktop by its name, or with null the input desktop. Null on failure, with the last error
// set. The caller closes it.
platform::DesktopHandle OpenDesktopByName(const char* name);

// Puts the calling thread onto an open desktop, which stays the caller's. Off the NT family, where
// there are no desktops, it does nothing and gives true.
bool SelectHDESK(platform::DesktopHandle desktop);

// Opens a desktop by its name, or with null the input desktop, and puts the calling thread onto it.
// *current, unless null, is the desktop that an earlier call has left there: it is closed, and the
// new one takes its place. Without it the desktop stays open as long as the process. Off the NT
// family only null is a desktop, and the result is true for it.
bool SelectDesktop(const char* name, platform::DesktopHandle* current);

// Whether the calling thread sits on the desktop that has the input; desktops are compared by name.
// Also true while the input desktop can't be opened for the moment (errors 170 and 624), and off
// the NT family.
bool IsInputDesktopCurrent();

}  // namespace stewardry
