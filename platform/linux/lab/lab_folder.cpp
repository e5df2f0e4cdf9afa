// The lab folder, and the mapping of Windows paths into it.
#include "platform/linux/lab/lab_folder.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace platform {

const std::string& LabFolder() {
  static const std::string* folder = [] {
    const char* chosen = std::getenv("STEWARDRY_LAB");
    return new std::string(chosen != nullptr && *chosen != 0 ? chosen : "/tmp/stewardry-lab");
  }();
  return *folder;
}

std::string LabPath(const std::string& name) { return LabFolder() + "/" + name; }

std::string NativePath(const char* windowsPath) {
  std::string path = windowsPath;
  for (char& c : path)
    if (c == '\\') c = '/';
  if (path.size() >= 3 && path.compare(1, 2, ":/") == 0) return LabPath(path.substr(3));
  return path;
}

int DialLabSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  path.copy(address.sun_path, path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

void AppendLabLine(const std::string& name, const std::string& line) {
  int fd = ::open(LabPath(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const std::string whole = line + "\n";
  // One write on an O_APPEND descriptor: the lines of several writers never mix. A line that the
  // disk has no room for is lost, as it would be in the system's own log.
  [[maybe_unused]] ssize_t written = ::write(fd, whole.data(), whole.size());
  ::close(fd);
}

}  // namespace platform
