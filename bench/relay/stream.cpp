// Descriptors, buffers and whole transfers.
#include "bench/relay/stream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace relay {

namespace {

constexpr int kBacklog = 16;

struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;
  int family = AF_UNSPEC;
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

Address Loopback(std::uint16_t port) {
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_port = htons(port);
  in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Address address{{}, sizeof in, AF_INET};
  std::memcpy(&address.storage, &in, sizeof in);
  return address;
}

// An unspecified family, which no call accepts, where the path is too long.
Address UnixPath(const std::string& path) {
  sockaddr_un un{};
  un.sun_family = AF_UNIX;
  if (path.size() >= sizeof un.sun_path) return {};
  path.copy(un.sun_path, path.size());
  Address address{{}, sizeof un, AF_UNIX};
  std::memcpy(&address.storage, &un, sizeof un);
  return address;
}

void SetOption(int descriptor, int level, int option) {
  const int on = 1;
  (void)::setsockopt(descriptor, level, option, &on, sizeof on);  // not for a Unix socket
}

Descriptor Listen(const Address& address) {
  Descriptor listener(::socket(address.family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  SetOption(listener.Get(), SOL_SOCKET, SO_REUSEADDR);
  if (::bind(listener.Get(), address.Get(), address.size) == 0 &&
      ::listen(listener.Get(), kBacklog) == 0)
    return listener;
  std::perror("listen");
  return Descriptor();
}

Descriptor Dial(const Address& address) {
  Descriptor descriptor(::socket(address.family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(descriptor.Get(), address.Get(), address.size) != 0) {
    std::perror("connect");
    return Descriptor();
  }
  SetOption(descriptor.Get(), IPPROTO_TCP, TCP_NODELAY);
  return descriptor;
}

}  // namespace

Descriptor::~Descriptor() {
  if (value_ >= 0) ::close(value_);
}

PageBuffer::PageBuffer(std::size_t size)
    : size_((size + kPage - 1) / kPage * kPage),
      bytes_(static_cast<std::byte*>(std::aligned_alloc(kPage, size_)), std::free) {
  if (!bytes_) std::abort();
  std::memset(bytes_.get(), 0, size_);
}

bool SendAll(int descriptor, const void* data, std::size_t size) {
  const auto* at = static_cast<const std::byte*>(data);
  while (size > 0) {
    const ssize_t n = ::send(descriptor, at, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    at += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool ReceiveAll(int descriptor, void* data, std::size_t size) {
  auto* at = static_cast<std::byte*>(data);
  while (size > 0) {
    const ssize_t n = ::recv(descriptor, at, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    at += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

Descriptor ListenTcp(std::uint16_t port) { return Listen(Loopback(port)); }

Descriptor ListenUnix(const std::string& path) {
  ::unlink(path.c_str());
  return Listen(UnixPath(path));
}

Descriptor DialTcp(std::uint16_t port) { return Dial(Loopback(port)); }

Descriptor DialUnix(const std::string& path) { return Dial(UnixPath(path)); }

Descriptor Accept(const Descriptor& listener) {
  Descriptor descriptor(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  SetOption(descriptor.Get(), IPPROTO_TCP, TCP_NODELAY);
  return descriptor;
}

}  // namespace relay
