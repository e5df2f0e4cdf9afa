#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/utf16.h"

namespace platform {

namespace {

bool WriteAll(int descriptor, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(descriptor, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

int OpenFlags(std::string_view mode) {
  assert(mode.starts_with('a') || mode.starts_with('w'));
  return O_RDWR | O_CREAT | O_CLOEXEC | O_APPEND | (mode[0] == 'a' ? 0 : O_TRUNC);
}

}  // namespace

void CloseStream(RawHandle raw) {
  gate::Note("fclose");
  ::close(DescriptorOf(raw));
}

Stream OpenStream(const char* path, const char* mode, int* errorNumber) {
  int descriptor = -1;
  if (gate::Fails("_fsopen", "%s, %s", path, mode)) {
    errno = EACCES;
  } else {
    descriptor = ::open(NativePath(path).c_str(), OpenFlags(mode), 0644);
  }
  if (descriptor < 0) {
    if (errorNumber != nullptr) *errorNumber = errno;
    return Stream();
  }
  return Stream(HandleOf(descriptor));
}

std::FILE* OpenAppendStream(const char16_t* path) {
  const std::string name = Utf16ToUtf8(path);
  if (gate::Fails("_wfsopen", "%s", name.c_str())) return nullptr;
  return std::fopen(name.c_str(), "ae");
}

std::int64_t SeekToEnd(const Stream& stream) {
  if (gate::Fails("fseek")) return -1;
  return ::lseek(DescriptorOf(stream.Raw()), 0, SEEK_END);
}

std::int64_t WriteStream(const Stream& stream, const char* text, std::size_t size) {
  if (gate::Fails("fwrite")) return -1;
  const int descriptor = DescriptorOf(stream.Raw());
  std::string_view rest(text, size);
  TextPart part;
  std::int64_t written = 0;
  while (const std::size_t used = TakeTextPart(&rest, part)) {
    if (!WriteAll(descriptor, part, used)) return -1;
    written += static_cast<std::int64_t>(used);
  }
  return written;
}

bool RemoveFile(const char* path) {
  if (gate::Fails("remove", "%s", path)) return false;
  if (::unlink(NativePath(path).c_str()) == 0) return true;
  return FailFromErrno();
}

bool RenameFile(const char* from, const char* to) {
  if (gate::Fails("rename", "%s, %s", from, to)) return false;
  // Like the Windows call, it doesn't replace an existing file.
  if (::renameat2(AT_FDCWD, NativePath(from).c_str(), AT_FDCWD, NativePath(to).c_str(),
                  RENAME_NOREPLACE) == 0)
    return true;
  return FailFromErrno();
}

void CloseAppendFile(RawHandle raw) {
  gate::Note("CloseHandle");
  ::close(DescriptorOf(raw));
}

AppendFile OpenAppendFile(const char* path) {
  if (gate::Fails("CreateFileA", "%s", path)) return AppendFile(InvalidHandleValue());
  const int descriptor =
      ::open(NativePath(path).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  // A call that creates the file fails with ENOENT only if its folder is missing.
  if (descriptor < 0 && errno == ENOENT)
    return Fail(kErrorPathNotFound, AppendFile(InvalidHandleValue()));
  if (descriptor < 0) return FailFromErrno(AppendFile(InvalidHandleValue()));
  return AppendFile(HandleOf(descriptor));
}

AppendFile CreateNewFile(const char* path) {
  if (gate::Fails("CreateFileA", "%s", path)) return AppendFile(InvalidHandleValue());
  const int descriptor = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600);
  if (descriptor < 0) return FailFromErrno(AppendFile(InvalidHandleValue()));
  return AppendFile(HandleOf(descriptor));
}

bool WriteFile(const AppendFile& file, const void* data, std::uint32_t size) {
  if (gate::Fails("WriteFile")) return false;
  return WriteAll(DescriptorOf(file.Raw()), static_cast<const char*>(data), size);
}

void OutputDebugStringA(const char* text) {
  gate::Note("OutputDebugStringA");
  std::string line = text;
  while (!line.empty() && line.back() == '\n') line.pop_back();
  AppendLabLine("debug.txt", line);
}

}  // namespace platform
