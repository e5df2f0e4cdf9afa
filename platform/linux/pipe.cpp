// Named pipes as Unix stream sockets in the lab folder. Neither connecting nor writing waits: a
// server that hangs makes them fail, as a pipe without a free instance does. A read waits, and a
// terminated thread leaves there.
#include "platform/pipe.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/linux/descriptor_handle.h"
#include "platform/linux/gate.h"
#include "platform/linux/lab_folder.h"
#include "platform/linux/wait.h"

namespace platform {

namespace {

constexpr std::string_view kPipePrefix = "\\\\.\\pipe\\";

// The socket of a pipe; empty for a name that is none.
std::string SocketOf(std::string_view name) {
  if (!name.starts_with(kPipePrefix)) return {};
  return LabPath("pipe/" + std::string(name.substr(kPipePrefix.size())));
}

int Connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    return SetLastError(kErrorFileNotFound), -1;
  path.copy(address.sun_path, path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return SetLastError(kErrorFileNotFound), -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  SetLastError(errno == EAGAIN ? kErrorPipeBusy : kErrorFileNotFound);
  ::close(fd);
  return -1;
}

}  // namespace

void ClosePipe(RawHandle raw) {
  gate::Note("CloseHandle");
  ::close(DescriptorOf(raw));
}

Pipe OpenPipe(const char* name, std::uint32_t shareMode) {
  if (gate::Fails("CreateFileA", "%s,%u", name, shareMode)) return Pipe(InvalidHandleValue());
  const int fd = Connect(SocketOf(name));
  return Pipe(fd < 0 ? InvalidHandleValue() : HandleOf(fd));
}

bool WriteFile(const Pipe& pipe, const void* bytes, std::uint32_t size, std::uint32_t* written) {
  *written = 0;
  if (gate::Fails("WriteFile", "%u", size)) return false;
  const ssize_t n = ::send(DescriptorOf(pipe.Raw()), bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (n < 0) {
    SetLastError(errno == EAGAIN ? kErrorPipeBusy : kErrorPipeNotConnected);
    return false;
  }
  *written = static_cast<std::uint32_t>(n);
  return true;
}

bool ReadFile(const Pipe& pipe, void* buffer, std::uint32_t size, std::uint32_t* read) {
  *read = 0;
  if (gate::Fails("ReadFile", "pipe,%u", size)) return false;
  const int fd = DescriptorOf(pipe.Raw());
  ssize_t n;
  do {
    WaitReadable(fd, -1);  // false on a signal: the receive below says what there is
    n = ::recv(fd, buffer, size, MSG_DONTWAIT);
  } while (n < 0 && (errno == EAGAIN || errno == EINTR));
  if (n <= 0) return SetLastError(kErrorBrokenPipe), false;
  *read = static_cast<std::uint32_t>(n);
  return true;
}

}  // namespace platform
