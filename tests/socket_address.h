// Socket addresses for tests, and what is said to one in a single call.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

// A Unix socket's path, of at most 107 bytes.
inline SocketAddress UnixAddress(const std::string& path) {
  SocketAddress address{{}, sizeof(sockaddr_un)};
  auto* local = reinterpret_cast<sockaddr_un*>(&address.storage);
  local->sun_family = AF_UNIX;
  path.copy(local->sun_path, sizeof local->sun_path - 1);
  return address;
}

// A port of 127.0.0.1, in host byte order.
inline SocketAddress LoopbackAddress(std::uint16_t port) {
  SocketAddress address{{}, sizeof(sockaddr_in)};
  auto* inet = reinterpret_cast<sockaddr_in*>(&address.storage);
  inet->sin_family = AF_INET;
  inet->sin_port = htons(port);
  inet->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Returns a stream socket, bound and listening; its folder is made where it is missing. The caller
// closes it. A failure fails the test.
inline int ListenUnix(const std::string& path, int backlog = 8) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ::unlink(path.c_str());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const SocketAddress address = UnixAddress(path);
  EXPECT_EQ(::bind(listener, address.Get(), address.size), 0);
  EXPECT_EQ(::listen(listener, backlog), 0);
  return listener;
}

// Sends one datagram to a Unix socket, which must be there.
inline void SendDatagram(const std::string& path, const std::string& text) {
  const int sock = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const SocketAddress to = UnixAddress(path);
  EXPECT_EQ(::sendto(sock, text.data(), text.size(), 0, to.Get(), to.size),
            static_cast<ssize_t>(text.size()));
  ::close(sock);
}
