// Moves the calling thread to the desktop that has the input at this moment: the default one, the
// logon screen or a secure desktop. No flow of the service calls these operations, since its input
// reaches the console through the agent. Their handles are fields of StandbyState without a lock:
// the family is for one thread at a time. All lines go to channel 0 of the side log, a failing call
// with the platform's reason.
#pragma once

#include <array>

#include "platform/desktop.h"

namespace stewardry {

// A window station's or a desktop's name, zero-terminated, cut to fit.
using ObjectName = std::array<char, 256>;

// Stores platform id and version; all three become 0 on failure.
void ReadWindowsVersion();
// Return whether ReadWindowsVersion found that family of the platform.
bool IsWin9x();
bool IsWinNT();

// Moves the process to WinSta0 and the calling thread to the input desktop, both with all access
// that is allowed. Returns false at the first failure and leaves what was done. A second call
// without LeaveInteractiveDesktop loses the first pair of handles.
bool EnterInteractiveDesktop();
// Moves both back and closes the new handles. Reports a failing step and goes on. Returns true.
bool LeaveInteractiveDesktop();

// Moves only the calling thread to the input desktop, then checks whether its window station has a
// user. Returns false without a window station; also, half a second later, if the user's name
// cannot be read for another reason than that no user is logged on.
bool AttachInputDesktop();
// Undoes AttachInputDesktop. Returns true.
bool ReturnToOldDesktop();

// Logs the name of the object *handle, and copies it to *name unless that is null. Returns false
// after a reported failure, with *name unchanged.
bool ShowObjectName(const platform::UserObject* handle, ObjectName* name);

// Opens a desktop by its name, or with a null name the input desktop. Returns null on failure, with
// the last error set. The caller closes it.
platform::DesktopHandle OpenDesktopByName(const char* name);

// Moves the calling thread to an open desktop, which the caller still owns. Returns false after a
// reported failure. Off the NT family, which alone has desktops, it does nothing and returns true.
bool SelectHDESK(platform::DesktopHandle desktop);

// Opens a desktop by its name, or with a null name the input desktop, and moves the calling thread
// to it. Unless `current` is null, closes *current, which an earlier call has stored there, and
// stores the new desktop; otherwise the desktop stays open for the life of the process. Returns
// false after a reported failure. Off the NT family it returns whether the name is null.
bool SelectDesktop(const char* name, platform::DesktopHandle* current);

// Returns whether the calling thread is on the desktop that has the input, compared by name. Also
// true off the NT family, and while the input desktop cannot be opened for the moment (errors 170
// and 624).
bool IsInputDesktopCurrent();

}  // namespace stewardry
