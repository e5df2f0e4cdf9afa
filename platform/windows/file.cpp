// A Stream is the handle below a stream of the C runtime. A terminated thread keeps the runtime's
// locks, and every later write, seek and close of the runtime's stream would wait for them; the
// kernel releases its own. So OpenStream closes the runtime's stream and keeps a duplicate of its
// handle.
#include "platform/file.h"

#include <io.h>
#include <share.h>

#include <cerrno>
#include <cstdio>

#include "platform/windows/runtime/windows_api.h"

namespace platform {

namespace {

// An offset of all ones makes the write itself find the end of the file.
bool Append(const Stream& stream, const char* data, DWORD size) {
  OVERLAPPED end{};
  end.Offset = end.OffsetHigh = 0xFFFFFFFF;
  DWORD written = 0;
  return ::WriteFile(stream.Raw(), data, size, &written, &end) && written == size;
}

}  // namespace

void CloseStream(RawHandle raw) { ::CloseHandle(raw); }

Stream OpenStream(const char* path, const char* mode, int* errorNumber) {
  FILE* opened = ::_fsopen(path, mode, _SH_DENYNO);
  if (opened == nullptr) {
    if (errorNumber != nullptr) *errorNumber = errno;
    return Stream();
  }
  const auto handle = reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(opened)));
  const HANDLE process = ::GetCurrentProcess();
  HANDLE kept = nullptr;
  if (!::DuplicateHandle(process, handle, process, &kept, 0, FALSE, DUPLICATE_SAME_ACCESS) &&
      errorNumber != nullptr)
    *errorNumber = EMFILE;
  std::fclose(opened);
  return Stream(kept);
}

std::FILE* OpenAppendStream(const char16_t* path) {
  return ::_wfsopen(reinterpret_cast<const wchar_t*>(path), L"a", _SH_DENYNO);
}

std::int64_t SeekToEnd(const Stream& stream) {
  LARGE_INTEGER position;
  return ::SetFilePointerEx(stream.Raw(), {}, &position, FILE_END) ? position.QuadPart : -1;
}

std::int64_t WriteStream(const Stream& stream, const char* text, std::size_t size) {
  std::string_view rest(text, size);
  TextPart part;
  std::int64_t written = 0;
  while (const std::size_t used = TakeTextPart(&rest, part)) {
    if (!Append(stream, part, static_cast<DWORD>(used))) return -1;
    written += static_cast<std::int64_t>(used);
  }
  return written;
}

bool RemoveFile(const char* path) { return ::DeleteFileA(path) != FALSE; }

bool RenameFile(const char* from, const char* to) { return ::MoveFileA(from, to) != FALSE; }

void CloseAppendFile(RawHandle raw) { ::CloseHandle(raw); }

AppendFile OpenAppendFile(const char* path) {
  return AppendFile(::CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
}

AppendFile CreateNewFile(const char* path) {
  return AppendFile(::CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, CREATE_NEW,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool WriteFile(const AppendFile& file, const void* data, std::uint32_t size) {
  DWORD written = 0;
  return ::WriteFile(file.Raw(), data, size, &written, nullptr) && written == size;
}

void OutputDebugStringA(const char* text) { ::OutputDebugStringA(text); }

}  // namespace platform
