// Sockets under Winsock's numbers. A blocking call waits so that its thread can be ended
// (runtime/wait.h).
#include "platform/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>

#include "platform/error.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/wait.h"

namespace platform {

namespace {

struct ErrnoRow {
  int number;
  int winsock;
};
constexpr ErrnoRow kSocketErrors[] = {
    {EINTR, kWsaEIntr},
    {EAGAIN, kWsaEWouldBlock},
    {EINPROGRESS, kWsaEWouldBlock},
    {EINVAL, kWsaEInval},
    {EADDRINUSE, kWsaEAddrInUse},
    {ENOTCONN, kWsaENotConn},
    {EBADF, kWsaENotSock},
    {ENOTSOCK, kWsaENotSock},
    {ECONNRESET, kWsaEConnReset},
    {ECONNREFUSED, kWsaEConnRefused},
    {EPIPE, kWsaEConnAborted},
    {EMFILE, kWsaEMFile},
    {EACCES, kWsaEAcces},
    {EADDRNOTAVAIL, kWsaEAddrNotAvail},
    {ETIMEDOUT, kWsaETimedOut},
    {EISCONN, kWsaEIsConn},
    {ENOBUFS, kWsaENoBufs},
    {EHOSTUNREACH, kWsaEHostUnreach},
};

int FailWith(int number) {
  int error = kWsaEFault;
  for (const ErrnoRow& row : kSocketErrors)
    if (row.number == number) error = row.winsock;
  SetLastError(static_cast<std::uint32_t>(error));
  return -1;
}

// Linux reports a send on a socket that was never connected as a broken pipe.
int SendError(int fd, int number) {
  sockaddr_storage peer;
  socklen_t size = sizeof peer;
  const bool connected = ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
  return number == EPIPE && !connected ? ENOTCONN : number;
}

// Passes the gate. An error that it injects is a Winsock number already.
bool Injected(const char* call, SocketValue sock) {
  return gate::Fails(call, "%d", static_cast<int>(sock));
}

int Checked(int result) { return result < 0 ? FailWith(errno) : result; }

int Native(SocketValue sock) { return sock > 0x7FFFFFFF ? -1 : static_cast<int>(sock); }

bool IsBlocking(int fd) { return (::fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }

// Runs `call` without blocking; on a blocking socket waits for `events` and runs it again.
template <class Call>
int Transfer(SocketValue sock, short events, Call call) {
  const int fd = Native(sock);
  for (;;) {
    const ssize_t n = call(fd);
    if (n >= 0) return static_cast<int>(n);
    if (errno == EPIPE) return FailWith(SendError(fd, errno));
    if (errno != EAGAIN || !IsBlocking(fd)) return FailWith(errno);
    (void)WaitDescriptor(fd, events, -1);  // the next call finds out what has changed
  }
}

// Linux' address for one with Windows' family numbers.
struct NativeAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;
  NativeAddress(const void* address, int length) : size(static_cast<socklen_t>(length)) {
    if (size > sizeof storage) size = sizeof storage;
    std::memcpy(&storage, address, size);
    if (storage.ss_family == kAfInet6) storage.ss_family = AF_INET6;
  }
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

// Winsock takes a whole send, however long, unless its buffer is full already. The service relies
// on that when it sends a firmware frame in one call; a buffer of 4 MiB comes near to it. Without
// the right to exceed the system's bound the kernel's own growth must do.
void GrowSendBuffer(int fd) {
  const int size = 4 << 20;
  ::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size);
}

struct Option {
  int level, option, nativeLevel, nativeOption;
};
constexpr Option kOptions[] = {{kSolSocket, kSoReuseAddr, SOL_SOCKET, SO_REUSEADDR},
                               {kSolSocket, kSoKeepAlive, SOL_SOCKET, SO_KEEPALIVE},
                               {kIpprotoTcp, kTcpNoDelay, IPPROTO_TCP, TCP_NODELAY}};

// The errors of accept for a connection that ended while it waited: its own abort, or an error that
// the network has left on it.
constexpr int kEndedConnections[] = {ECONNABORTED, EPROTO,      ENETDOWN,   ENETUNREACH, EHOSTDOWN,
                                     EHOSTUNREACH, ENOPROTOOPT, EOPNOTSUPP, ENONET};

// Calls accept4, with Winsock's one error for all of those.
int AcceptNative(int listener, sockaddr_in* peer) {
  socklen_t size = sizeof *peer;
  const int fd = ::accept4(listener, reinterpret_cast<sockaddr*>(peer), &size, SOCK_CLOEXEC);
  if (fd < 0 && std::ranges::find(kEndedConnections, errno) != std::end(kEndedConnections))
    errno = ECONNRESET;
  return fd;
}

}  // namespace

int WSAStartup() {
  gate::Note("WSAStartup");
  return 0;
}
void WSACleanup() { gate::Note("WSACleanup"); }
// Windows keeps one last error for all calls of a thread, these among them.
int WSAGetLastError() { return static_cast<int>(LastError()); }

SocketValue socket(int family, int type, int protocol) {
  if (Injected("socket", 0)) return kInvalidSocket;
  const int fd = ::socket(family == kAfInet6 ? AF_INET6 : family, type | SOCK_CLOEXEC, protocol);
  return fd < 0 ? (FailWith(errno), kInvalidSocket) : static_cast<SocketValue>(fd);
}

int setsockopt(SocketValue sock, int level, int option, const void* value, int size) {
  if (Injected("setsockopt", sock)) return -1;
  for (const Option& row : kOptions)
    if (row.level == level && row.option == option)
      return Checked(::setsockopt(Native(sock), row.nativeLevel, row.nativeOption, value,
                                  static_cast<socklen_t>(size)));
  return FailWith(EINVAL);
}

int bind(SocketValue sock, const void* address, int size) {
  if (Injected("bind", sock)) return -1;
  const NativeAddress native(address, size);
  return Checked(::bind(Native(sock), native.Get(), native.size));
}

int connect(SocketValue sock, const void* address, int size) {
  if (Injected("connect", sock)) return -1;
  const NativeAddress native(address, size);
  return Checked(::connect(Native(sock), native.Get(), native.size));
}

int listen(SocketValue sock, int backlog) {
  if (Injected("listen", sock)) return -1;
  return Checked(::listen(Native(sock), backlog));
}

SocketValue accept(SocketValue sock, SockAddrIn* peer) {
  if (Injected("accept", sock)) return kInvalidSocket;
  sockaddr_in address{};
  const int fd = Transfer(sock, POLLIN, [&](int at) { return AcceptNative(at, &address); });
  if (fd < 0) return kInvalidSocket;
  GrowSendBuffer(fd);
  *peer = SockAddrIn{kAfInet, address.sin_port, address.sin_addr.s_addr, {}};
  return static_cast<SocketValue>(fd);
}

int SetNonBlocking(SocketValue sock, bool nonBlocking) {
  if (Injected("ioctlsocket", sock)) return -1;
  int value = nonBlocking ? 1 : 0;
  return Checked(::ioctl(Native(sock), FIONBIO, &value));
}

int recv(SocketValue sock, void* buffer, int size) {
  if (Injected("recv", sock)) return -1;
  return Transfer(sock, POLLIN, [&](int fd) {
    return ::recv(fd, buffer, static_cast<std::size_t>(size), MSG_DONTWAIT);
  });
}

int send(SocketValue sock, const void* buffer, int size) {
  if (Injected("send", sock)) return -1;
  return Transfer(sock, POLLOUT, [&](int fd) {
    return ::send(fd, buffer, static_cast<std::size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL);
  });
}

int recvfrom(SocketValue sock, void* buffer, int size, void* address, int* addressSize) {
  if (Injected("recvfrom", sock)) return -1;
  auto length = static_cast<socklen_t>(addressSize != nullptr ? *addressSize : 0);
  const int n = Transfer(sock, POLLIN, [&](int fd) {
    return ::recvfrom(fd, buffer, static_cast<std::size_t>(size), MSG_DONTWAIT,
                      static_cast<sockaddr*>(address), address != nullptr ? &length : nullptr);
  });
  if (addressSize != nullptr) *addressSize = static_cast<int>(length);
  return n;
}

int sendto(SocketValue sock, const void* buffer, int size, const void* address, int addressSize) {
  if (Injected("sendto", sock)) return -1;
  const NativeAddress native(address, addressSize);
  return Transfer(sock, POLLOUT, [&](int fd) {
    return ::sendto(fd, buffer, static_cast<std::size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL,
                    native.Get(), native.size);
  });
}

int shutdown(SocketValue sock, int how) {
  if (Injected("shutdown", sock)) return -1;
  return Checked(::shutdown(Native(sock), how));
}

int closesocket(SocketValue sock) {
  gate::Note("closesocket");
  return Checked(::close(Native(sock)));
}

int ResolveHost(const char* host, int index, void* address, int capacity) {
  if (gate::Fails("getaddrinfo", "%s", host)) return 0;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host, nullptr, &hints, &found) != 0) return 0;
  std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, ::freeaddrinfo);
  for (; found != nullptr && index > 0; --index) found = found->ai_next;
  if (found == nullptr || static_cast<int>(found->ai_addrlen) > capacity) return 0;
  std::memcpy(address, found->ai_addr, found->ai_addrlen);
  return static_cast<int>(found->ai_addrlen);
}

int gethostname(char* name, int size) {
  if (gate::Fails("gethostname") || size <= 0) return -1;
  name[size - 1] = 0;
  return Checked(::gethostname(name, static_cast<std::size_t>(size) - 1));
}

}  // namespace platform
