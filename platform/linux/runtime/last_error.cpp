#include "platform/linux/runtime/last_error.h"

namespace platform {

namespace {

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

}  // namespace

void SetLastErrorFromErrno(int number) {
  for (const ErrnoRow& row : kFileErrors)
    if (row.number == number) return SetLastError(row.windows);
  SetLastError(kErrorGenFailure);
}

}  // namespace platform
