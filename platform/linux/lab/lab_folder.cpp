#include "platform/linux/lab/lab_folder.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>

#include "platform/handle.h"
#include "platform/linux/runtime/descriptor.h"

namespace platform {

namespace {

struct FolderOfProcess {
  std::string path = "/tmp/stewardry-lab";
  FolderOfProcess() {
    const char* chosen = std::getenv("STEWARDRY_LAB");
    if (chosen != nullptr && *chosen != 0) path = chosen;
  }
};

// Returns false, with errno set, for a path that is too long for a socket.
bool FillAddress(const std::string& path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  path.copy(address->sun_path, path.size());
  return true;
}

}  // namespace

const std::string& LabFolder() {
  static ProcessLifetime<FolderOfProcess> folder;
  return folder->path;
}

std::string LabPath(const std::string& name) { return LabFolder() + "/" + name; }

std::string NativePath(const char* windowsPath) {
  assert(windowsPath != nullptr);
  std::string path = windowsPath;
  for (char& c : path)
    if (c == '\\') c = '/';
  if (path.size() >= 3 && path.compare(1, 2, ":/") == 0) return LabPath(path.substr(3));
  return path;
}

int ConnectLabSocket(const std::string& path, int flags) {
  sockaddr_un address;
  if (!FillAddress(path, &address)) return -1;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  const int error = errno;
  ::close(fd);
  errno = error;
  return -1;
}

bool BindLabSocket(int descriptor, const std::string& name) {
  const std::string path = LabPath(name);
  sockaddr_un address;
  if (!FillAddress(path, &address)) return false;
  ::unlink(path.c_str());
  return ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void AppendLabLine(const std::string& name, const std::string& line) {
  const Descriptor file(
      ::open(LabPath(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!file) return;
  const std::string whole = line + "\n";
  // One write on an O_APPEND descriptor: the lines of several writers never mix. A line is lost if
  // the disk is full, as it would be in the system's own log.
  [[maybe_unused]] ssize_t written = ::write(file.Value(), whole.data(), whole.size());
}

}  // namespace platform
