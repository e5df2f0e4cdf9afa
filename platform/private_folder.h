// A folder that only the system and its administrators may write to, at a place where any user may
// create folders and may have created this one. Paths are those of platform/file.h. A call may
// block for as long as another process likes, because an open file can delay whoever opens it next.
//
// Trusted owners are the system, the administrators (on Linux: root) and the user of this process.
#pragma once

namespace platform {

// Creates a folder with full access for the system and the administrators, inherited by everything
// in it, and none for others (CreateDirectoryA; on Linux mode 0700). Returns false with
// kErrorAlreadyExists if the name exists.
bool CreatePrivateFolder(const char* path);

// Sets that access on an existing folder. Returns false and changes nothing if it is a link,
// another reparse point, or not of a trusted owner.
bool ClaimPrivateFolder(const char* path);

// Deletes from a folder what has no trusted owner, every link, and every file that has a second
// name, which may be a file of the system. Returns false if any of it remains.
bool RemoveForeignFiles(const char* path);

}  // namespace platform
