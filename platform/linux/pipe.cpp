// Named pipes as Unix stream sockets in the lab folder. Connecting doesn't wait: a server that
// hangs makes it fail, as a pipe without a free instance does. Reads and writes wait, and a
// terminated thread leaves there.
#include "platform/pipe.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor_handle.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/wait.h"

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

// Waits for room in the socket; false once the deadline has passed.
bool AwaitRoom(int fd, Deadline deadline) {
  int left = -1;
  if (deadline != Deadline::max()) {
    const auto time =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - Deadline::clock::now());
    if (time.count() <= 0) return false;
    left = static_cast<int>(time.count());
  }
  WaitDescriptor(fd, POLLOUT, left);  // false on a signal: the send shows whether there is room
  return true;
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

// Who was the server when it began to listen; a process that this one doesn't see is 0.
bool GetNamedPipeServerProcessId(const Pipe& pipe, std::uint32_t* processId) {
  if (gate::Fails("GetNamedPipeServerProcessId")) return false;
  ucred server{};
  socklen_t size = sizeof server;
  if (::getsockopt(DescriptorOf(pipe.Raw()), SOL_SOCKET, SO_PEERCRED, &server, &size) != 0)
    return SetLastError(kErrorPipeNotConnected), false;
  *processId = static_cast<std::uint32_t>(server.pid);
  return true;
}

bool WriteFile(const Pipe& pipe, const void* bytes, std::uint32_t size, std::uint32_t milliseconds,
               std::uint32_t* written) {
  *written = 0;
  if (gate::Fails("WriteFile", "%u", size)) return false;
  const int fd = DescriptorOf(pipe.Raw());
  const Deadline deadline = DeadlineAfter(milliseconds);
  while (*written < size) {
    const ssize_t n = ::send(fd, static_cast<const char*>(bytes) + *written, size - *written,
                             MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
      *written += static_cast<std::uint32_t>(n);
    } else if (errno != EAGAIN && errno != EINTR) {
      return SetLastError(kErrorPipeNotConnected), false;
    } else if (!AwaitRoom(fd, deadline)) {
      return SetLastError(kErrorOperationAborted), false;
    }
  }
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
