// The owner of a socket: the only place outside the socket layer that closes one.
#pragma once

#include <cassert>
#include <utility>

#include "sock/sock.h"

namespace stewardry {

class UniqueSock {
 public:
  UniqueSock() = default;
  explicit UniqueSock(Sock sock) : sock_(sock) {}
  UniqueSock(UniqueSock&& other) noexcept : sock_(other.Release()) {}
  UniqueSock& operator=(UniqueSock&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  UniqueSock(const UniqueSock&) = delete;
  UniqueSock& operator=(const UniqueSock&) = delete;
  ~UniqueSock() { Reset(); }

  explicit operator bool() const { return sock_ != kInvalidSock; }
  Sock Get() const { return sock_; }
  // Returns the socket, which the caller owns from then on.
  [[nodiscard]] Sock Release() { return std::exchange(sock_, kInvalidSock); }
  // Takes ownership of `sock` and closes the socket held before.
  void Reset(Sock sock = kInvalidSock) {
    assert(sock == kInvalidSock || sock != sock_);
    const Sock old = std::exchange(sock_, sock);
    if (old != kInvalidSock) (void)Sock_Close(old);  // a failed close leaves nothing to do
  }

 private:
  Sock sock_ = kInvalidSock;
};

}  // namespace stewardry
