// Named pipes are Unix stream sockets in the lab folder. Connecting doesn't wait: it fails if the
// server hangs, as for a pipe without a free instance. Reads and writes wait, and a terminated
// thread leaves there.
#include "platform/pipe.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/wait.h"

namespace platform {

namespace {

constexpr std::string_view kPipePrefix = "\\\\.\\pipe\\";

// Returns the path of a pipe's socket; empty for a name outside the pipe folder.
std::string SocketOf(std::string_view name) {
  if (!name.starts_with(kPipePrefix)) return {};
  return LabPath("pipe/" + std::string(name.substr(kPipePrefix.size())));
}

// Blocks until the socket has room. Returns false once the deadline has passed.
bool AwaitRoom(int fd, Deadline deadline) {
  int left = -1;
  if (deadline != Deadline::max()) {
    const auto time =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - Deadline::clock::now());
    if (time.count() <= 0) return false;
    left = static_cast<int>(time.count());
  }
  (void)WaitDescriptor(fd, POLLOUT, left);  // the send finds out whether there is room
  return true;
}

}  // namespace

void ClosePipe(RawHandle raw) {
  gate::Note("CloseHandle");
  ::close(DescriptorOf(raw));
}

Pipe OpenPipe(const char* name, std::uint32_t shareMode) {
  if (gate::Fails("CreateFileA", "%s,%u", name, shareMode)) return Pipe(InvalidHandleValue());
  const std::string path = SocketOf(name);
  if (path.empty()) return Fail(kErrorFileNotFound, Pipe(InvalidHandleValue()));
  const int fd = ConnectLabSocket(path, SOCK_NONBLOCK);
  if (fd >= 0) return Pipe(HandleOf(fd));
  return Fail(errno == EAGAIN ? kErrorPipeBusy : kErrorFileNotFound, Pipe(InvalidHandleValue()));
}

// Returns the process that began to listen; 0 if it isn't visible from this one's namespace.
bool GetNamedPipeServerProcessId(const Pipe& pipe, std::uint32_t* processId) {
  if (gate::Fails("GetNamedPipeServerProcessId")) return false;
  ucred server{};
  socklen_t size = sizeof server;
  if (::getsockopt(DescriptorOf(pipe.Raw()), SOL_SOCKET, SO_PEERCRED, &server, &size) != 0)
    return Fail(kErrorPipeNotConnected);
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
      return Fail(kErrorPipeNotConnected);
    } else if (!AwaitRoom(fd, deadline)) {
      return Fail(kErrorOperationAborted);
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
    (void)WaitReadable(fd, -1);  // the receive finds out what there is
    n = ::recv(fd, buffer, size, MSG_DONTWAIT);
  } while (n < 0 && (errno == EAGAIN || errno == EINTR));
  if (n <= 0) return Fail(kErrorBrokenPipe);
  *read = static_cast<std::uint32_t>(n);
  return true;
}

}  // namespace platform
