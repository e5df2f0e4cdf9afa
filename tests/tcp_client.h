// A console's end of a connection: a plain blocking socket with bounds on its waits. With those, a
// process that is stopped and continued gets EINTR.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "tests/socket_address.h"

class TcpClient {
 public:
  explicit TcpClient(std::uint16_t port, int waitMs = 60'000) {
    sock_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval wait{waitMs / 1000, waitMs % 1000 * 1000};
    ::setsockopt(sock_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    ::setsockopt(sock_, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    const SocketAddress address = LoopbackAddress(port);
    connected_ =
        TEMP_FAILURE_RETRY(::connect(sock_, address.Get(), address.size)) == 0 || errno == EISCONN;
  }
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;
  ~TcpClient() { ::close(sock_); }

  bool Connected() const { return connected_; }
  void Send(const std::string& text) {
    ssize_t n = 0;
    for (std::size_t sent = 0; n >= 0 && sent < text.size(); sent += static_cast<std::size_t>(n))
      n = TEMP_FAILURE_RETRY(::send(sock_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL));
  }
  // What comes, up to `size` bytes; less at the peer's close or after the wait.
  std::string Receive(std::size_t size) {
    std::string text(size, '\0');
    std::size_t got = 0;
    while (got < size) {
      const ssize_t n = TEMP_FAILURE_RETRY(::recv(sock_, text.data() + got, size - got, 0));
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    text.resize(got);
    return text;
  }
  // Whether a byte, the peer's end or an error has come.
  bool HasInput() const {
    char byte;
    return ::recv(sock_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN;
  }
  // True once the peer has closed or reset the connection.
  bool SeesEnd() {
    char byte;
    const ssize_t n = TEMP_FAILURE_RETRY(::recv(sock_, &byte, 1, 0));
    return n == 0 || (n < 0 && errno == ECONNRESET);
  }
  // Closes with a reset instead of a FIN.
  void Reset() {
    const linger now{1, 0};
    ::setsockopt(sock_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    ::shutdown(sock_, SHUT_RDWR);
    ::close(sock_);
    sock_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  }

 private:
  int sock_ = -1;
  bool connected_ = false;
};
