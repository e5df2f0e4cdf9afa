#include "platform/shared_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

void CloseSharedFile(RawHandle raw) {
  gate::Note("CloseHandle");
  ::close(DescriptorOf(raw));
}

SharedFile OpenSharedFile(const char* path) {
  if (gate::Fails("CreateFileA", "%s", path)) return SharedFile(InvalidHandleValue());
  // Without O_NONBLOCK the open of a FIFO at the log's place would wait for a writer.
  const int descriptor = ::open(NativePath(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return FailFromErrno(SharedFile(InvalidHandleValue()));
  return SharedFile(HandleOf(descriptor));
}

bool GetSharedFileState(const SharedFile& file, SharedFileState* state) {
  if (gate::Fails("GetFileInformationByHandle")) return false;
  struct stat status {};
  if (::fstat(DescriptorOf(file.Raw()), &status) != 0) return FailFromErrno();
  *state = {status.st_dev, status.st_ino, status.st_size, status.st_mtime};
  return true;
}

bool ReadAt(const SharedFile& file, std::int64_t offset, void* buffer, std::size_t size,
            std::size_t* read) {
  *read = 0;
  if (gate::Fails("ReadFile")) return false;
  for (;;) {
    const ssize_t n = ::pread(DescriptorOf(file.Raw()), buffer, size, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return FailFromErrno();
    *read = static_cast<std::size_t>(n);
    return true;
  }
}

bool ListFolder(const char* path, std::vector<std::string>* names) {
  names->clear();
  if (gate::Fails("FindFirstFileA", "%s", path)) return false;
  DIR* const folder = ::opendir(NativePath(path).c_str());
  if (folder == nullptr) return FailFromErrno();
  while (const dirent* entry = ::readdir(folder)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names->push_back(name);
  }
  ::closedir(folder);
  return true;
}

bool GetFreeBytes(const char* folder, std::uint64_t* bytes) {
  if (gate::Fails("GetDiskFreeSpaceExA", "%s", folder)) return false;
  struct statvfs volume {};
  if (::statvfs(NativePath(folder).c_str(), &volume) != 0) return FailFromErrno();
  *bytes = std::uint64_t{volume.f_bavail} * volume.f_frsize;
  return true;
}

}  // namespace platform
