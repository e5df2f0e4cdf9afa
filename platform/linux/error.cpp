// Last errors in Windows numbers, and the mapping of errno to them.
#include "platform/error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/linux/runtime/errno_map.h"
#include "platform/linux/runtime/gate.h"

namespace platform {

namespace {

thread_local std::uint32_t tLastError = 0;

struct ErrnoRow {
  int number;
  std::uint32_t windows;
};

constexpr ErrnoRow kFileErrors[] = {
    {ENOENT, kErrorFileNotFound},     {ENOTDIR, kErrorPathNotFound},
    {EACCES, kErrorAccessDenied},     {EPERM, kErrorAccessDenied},
    {EROFS, kErrorAccessDenied},      {EEXIST, kErrorAlreadyExists},
    {ENOMEM, kErrorNotEnoughMemory},  {EBADF, kErrorInvalidHandle},
    {EINVAL, kErrorInvalidParameter}, {ENOSPC, kErrorDiskFull},
    {EISDIR, kErrorAccessDenied},
};

struct TextRow {
  std::uint32_t error;
  const char* text;
};

constexpr TextRow kTexts[] = {
    {kErrorFileNotFound, "File not found."},
    {kErrorPathNotFound, "Path not found."},
    {kErrorAccessDenied, "Access denied."},
    {kErrorInvalidHandle, "Invalid handle."},
    {kErrorInvalidParameter, "Invalid parameter."},
    {kErrorNotEnoughMemory, "Not enough memory."},
    {kErrorFailedServiceControllerConnect, "The service manager did not start this process."},
    {kErrorServiceNotActive, "The service is not active."},
};

}  // namespace

std::uint32_t LastError() { return tLastError; }

void SetLastError(std::uint32_t error) { tLastError = error; }

void SetLastErrorFromErrno(int number) {
  for (const ErrnoRow& row : kFileErrors)
    if (row.number == number) return SetLastError(row.windows);
  SetLastError(kErrorGenFailure);
}

std::size_t FormatMessageA(std::uint32_t error, char* text, std::size_t size) {
  if (gate::Fails("FormatMessageA")) return 0;
  for (const TextRow& row : kTexts) {
    if (row.error != error) continue;
    const int length = std::snprintf(text, size, "%s", row.text);
    return static_cast<std::size_t>(length) < size ? static_cast<std::size_t>(length) : size - 1;
  }
  return 0;
}

}  // namespace platform
