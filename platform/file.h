// Files, folders and the debug output. Paths are Windows paths on every platform
// ("C:\ProgramData\..."); the Linux side maps them below the lab folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "platform/handle.h"

namespace platform {

void CloseStream(RawHandle raw);
using Stream = Owned<struct StreamTag, CloseStream>;

// _fsopen(path, mode, _SH_DENYNO): a text file shared with other openers. Modes used: "a+t", "w+t",
// "a+" and "w", all text modes. Empty owner on failure; *errorNumber, where given, gets errno. A
// stream belongs to one thread at a time. The calls below and the close take no lock and no heap
// block that a thread ended in one of them could keep.
Stream OpenStream(const char* path, const char* mode, int* errorNumber = nullptr);

// Seeks to the end: the file's size in bytes, -1 on failure.
std::int64_t SeekToEnd(const Stream& stream);

// Writes at the end of the file, whatever the mode, each '\n' as "\r\n". Nothing is buffered: the
// text has left the process when the call returns. True when everything was taken.
bool WriteStream(const Stream& stream, const char* text, std::size_t size);

// _wfsopen(path, "a", _SH_DENYNO): a buffered text stream at the end of a file of the host itself,
// which isn't mapped. Null on failure. The caller closes it with std::fclose; any thread may write.
std::FILE* OpenAppendStream(const char16_t* path);

// remove and rename, DeleteFileA and MoveFileA: true on success.
bool RemoveFile(const char* path);
bool RenameFile(const char* from, const char* to);

void CloseAppendFile(RawHandle raw);
using AppendFile = Owned<struct AppendFileTag, CloseAppendFile>;

// CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ, NULL, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL,
// NULL): each write goes to the end of the file. Empty owner on failure.
AppendFile OpenAppendFile(const char* path);

// WriteFile on it: true when all `size` bytes were written.
bool WriteFile(const AppendFile& file, const void* data, std::uint32_t size);

// OutputDebugStringA: `text` zero-terminated. Any thread.
void OutputDebugStringA(const char* text);

}  // namespace platform
