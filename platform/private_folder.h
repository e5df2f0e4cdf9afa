// A folder that only the system and its administrators may write to, at a place where any user of
// the machine may make folders, and may have made this one. Paths are those of platform/file.h.
// Any thread. The calls may wait for as long as another process likes: one that has opened a file
// can hold up whoever opens it next.
//
// Trusted owners are the system and the administrators (on Linux: root) and the user that this
// process runs as, who may do to it whatever it likes. The service runs as the system.
#pragma once

namespace platform {

// CreateDirectoryA with the descriptor D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA): full access for the
// system and the administrators, inherited by everything in it, and none for anybody else. Linux:
// mode 0700. False with kErrorAlreadyExists when something of that name is there.
bool CreatePrivateFolder(const char* path);

// Gives that access to what is there, if it is a real folder (no link, no other reparse point) of a
// trusted owner. False, with the error, if it is none; nothing is changed then.
bool ClaimPrivateFolder(const char* path);

// Deletes from a folder what has no trusted owner, what is a link, and each file that has another
// name, since that may be a file of the system's. False if any of it is still there.
bool RemoveForeignFiles(const char* path);

}  // namespace platform
