// Reading a file that another process writes, renames or deletes meanwhile. Nothing here changes a
// file or keeps its owner from changing it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/handle.h"

namespace platform {

void CloseSharedFile(RawHandle raw);
using SharedFile = Owned<struct SharedFileTag, CloseSharedFile>;

// Opens a file for reading. Other openers may read, write, rename and delete it (CreateFileA with
// the three share flags). Paths are those of platform/file.h. Holds the invalid handle value on
// failure.
SharedFile OpenSharedFile(const char* path);

// Identity and size of an open file. The identity stays the same when the file is renamed.
struct SharedFileState {
  std::uint64_t volume;
  std::uint64_t index;
  std::int64_t size;      // bytes
  std::int64_t modified;  // seconds since 1970-01-01 00:00 UTC
};

// Stores the state of the file. Returns false on failure.
bool GetSharedFileState(const SharedFile& file, SharedFileState* state);

// Reads at most `size` bytes at `offset` and stores their number in *read, 0 at the file's end.
// Returns false on failure.
bool ReadAt(const SharedFile& file, std::int64_t offset, void* buffer, std::size_t size,
            std::size_t* read);

// Stores the names, without the path, of the files in a folder; they are not sorted. Returns false
// with the last error if the folder cannot be listed.
bool ListFolder(const char* path, std::vector<std::string>* names);

// Stores how many bytes the caller may still write to the volume of a folder.
bool GetFreeBytes(const char* folder, std::uint64_t* bytes);

}  // namespace platform
