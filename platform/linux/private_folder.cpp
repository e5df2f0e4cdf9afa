#include "platform/private_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

namespace {

constexpr mode_t kPrivate = 0700;

bool IsTrusted(const struct stat& status) {
  return status.st_uid == 0 || status.st_uid == ::geteuid();
}

bool IsForeign(const struct stat& status) {
  const bool isFolder = S_ISDIR(status.st_mode);
  return !IsTrusted(status) || S_ISLNK(status.st_mode) || (!isFolder && status.st_nlink > 1);
}

// Returns false if the file is foreign and could not be removed.
bool RemoveIfForeign(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT;
  if (!IsForeign(status)) return true;
  return (S_ISDIR(status.st_mode) ? ::rmdir(path.c_str()) : ::unlink(path.c_str())) == 0;
}

}  // namespace

bool CreatePrivateFolder(const char* path) {
  if (gate::Fails("CreateDirectoryA", "%s", path)) return false;
  if (::mkdir(NativePath(path).c_str(), kPrivate) == 0) return true;
  // For a call that creates the folder, only one above it can be missing.
  if (errno == ENOENT) return Fail(kErrorPathNotFound);
  return FailFromErrno();
}

bool ClaimPrivateFolder(const char* path) {
  if (gate::Fails("SetKernelObjectSecurity", "%s", path)) return false;
  const Descriptor folder(
      ::open(NativePath(path).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!folder || ::fstat(folder.Value(), &status) != 0) return FailFromErrno();
  if (!IsTrusted(status)) return Fail(kErrorAccessDenied);
  if (::fchmod(folder.Value(), kPrivate) == 0) return true;
  return FailFromErrno();
}

bool RemoveForeignFiles(const char* path) {
  if (gate::Fails("FindFirstFileA", "%s", path)) return false;
  bool isClean = true;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(NativePath(path), error), end;
       !error && entry != end; entry.increment(error))
    isClean = RemoveIfForeign(entry->path().string()) && isClean;
  if (error || !isClean) SetLastError(kErrorAccessDenied);
  return !error && isClean;
}

}  // namespace platform
