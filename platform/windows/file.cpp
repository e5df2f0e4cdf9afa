// Files, folders and the debug output.
#include "platform/file.h"

#include <share.h>

#include <cerrno>
#include <cstdio>

#include "platform/windows/windows_api.h"

namespace platform {

namespace {

FILE* File(const Stream& stream) { return static_cast<FILE*>(stream.Raw()); }

}  // namespace

void CloseStream(RawHandle raw) { std::fclose(static_cast<FILE*>(raw)); }

Stream OpenStream(const char* path, const char* mode, int* errorNumber) {
  Stream stream(::_fsopen(path, mode, _SH_DENYNO));
  if (!stream && errorNumber != nullptr) *errorNumber = errno;
  return stream;
}

std::FILE* OpenAppendStream(const char16_t* path) {
  return ::_wfsopen(reinterpret_cast<const wchar_t*>(path), L"a", _SH_DENYNO);
}

std::int64_t SeekToEnd(const Stream& stream) {
  return std::fseek(File(stream), 0, SEEK_END) == 0 ? ::_ftelli64(File(stream)) : -1;
}

bool WriteStream(const Stream& stream, const char* text, std::size_t size) {
  return std::fwrite(text, 1, size, File(stream)) == size;
}

bool FlushStream(const Stream& stream) { return std::fflush(File(stream)) == 0; }

bool RemoveFile(const char* path) { return ::DeleteFileA(path) != FALSE; }

bool RenameFile(const char* from, const char* to) { return ::MoveFileA(from, to) != FALSE; }

void CloseAppendFile(RawHandle raw) { ::CloseHandle(raw); }

AppendFile OpenAppendFile(const char* path) {
  return AppendFile(::CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool WriteFile(const AppendFile& file, const void* data, std::uint32_t size) {
  DWORD written = 0;
  return ::WriteFile(file.Raw(), data, size, &written, nullptr) && written == size;
}

void OutputDebugStringA(const char* text) { ::OutputDebugStringA(text); }

}  // namespace platform
