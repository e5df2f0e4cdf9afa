// Files and the debug output. Paths are Windows paths on both platforms ("C:\ProgramData\..."); on
// Linux they lie below the lab folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/handle.h"

namespace platform {

void CloseStream(RawHandle raw);
using Stream = Owned<struct StreamTag, CloseStream>;

// Opens a text file that other openers share (_fsopen with _SH_DENYNO); `mode` is "a+t", "w+t",
// "a+" or "w". Stores errno in *errorNumber on failure, unless that is null. One thread at a time
// uses a stream. A thread terminated in a call below or in the close leaves no lock and no heap
// block behind.
Stream OpenStream(const char* path, const char* mode, int* errorNumber = nullptr);

// Seeks to the end. Returns the size in bytes, -1 on failure.
std::int64_t SeekToEnd(const Stream& stream);

// Writes at the end of the file in every mode, each '\n' as "\r\n", without a buffer. Returns the
// bytes that the file has grown by, -1 unless all of the text was written.
std::int64_t WriteStream(const Stream& stream, const char* text, std::size_t size);

// For the twins of WriteStream: moves the next part of the text to `part`, each '\n' as "\r\n", and
// returns its size, 0 at the text's end. A log line is one part.
using TextPart = char[2048];
inline std::size_t TakeTextPart(std::string_view* text, TextPart& part) {
  std::size_t used = 0;
  while (!text->empty() && used + 2 < sizeof part) {
    const std::string_view room = text->substr(0, sizeof part - 2 - used);
    const std::string_view plain = room.substr(0, room.find('\n'));
    std::memcpy(part + used, plain.data(), plain.size());
    used += plain.size();
    text->remove_prefix(plain.size());
    if (plain.size() == room.size()) continue;
    part[used++] = '\r';
    part[used++] = '\n';
    text->remove_prefix(1);
  }
  return used;
}

// Opens a buffered text stream that appends to a file (_wfsopen); the path is the host's own, also
// on Linux. Returns null on failure. The caller closes it with std::fclose.
std::FILE* OpenAppendStream(const char16_t* path);

// Delete and rename a file (DeleteFileA, MoveFileA). A rename fails if `to` exists.
bool RemoveFile(const char* path);
bool RenameFile(const char* from, const char* to);

void CloseAppendFile(RawHandle raw);
using AppendFile = Owned<struct AppendFileTag, CloseAppendFile>;

// Opens or creates a file for appending, shared with readers (CreateFileA with FILE_APPEND_DATA).
AppendFile OpenAppendFile(const char* path);

// Creates a file for writing from its start; the path is the host's own, also on Linux. Fails if
// the name exists, also as a link (CreateFileA with CREATE_NEW).
AppendFile CreateNewFile(const char* path);

// Appends the bytes. Returns true if all of them were written.
bool WriteFile(const AppendFile& file, const void* data, std::uint32_t size);

// Writes a zero-terminated text to the debug output.
void OutputDebugStringA(const char* text);

}  // namespace platform
