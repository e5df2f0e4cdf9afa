// Connected socket pairs and the ping-pong that measures every event loop: 64 bytes go back and
// forth between two ends in the same loop, so a turn is one wait, one read and one write, without
// another thread. The loop also watches idle pairs.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

namespace loop_bench {

inline void Check(bool good) {
  if (!good) std::abort();  // without its sockets a benchmark measures nothing
}

// Two connected, non-blocking stream sockets: a Unix pair, or TCP on loopback with TCP_NODELAY.
class SocketPair {
 public:
  explicit SocketPair(bool tcp) {
    if (tcp) {
      ConnectTcp();
    } else {
      Check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_) == 0);
    }
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  ~SocketPair() {
    for (int end : ends_) ::close(end);
  }
  int Near() const { return ends_[0]; }
  int Far() const { return ends_[1]; }

 private:
  void ConnectTcp() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Check(::bind(listener, generic, size) == 0 && ::listen(listener, 1) == 0);
    Check(::getsockname(listener, generic, &size) == 0);
    ends_[0] = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Check(::connect(ends_[0], generic, size) == 0);
    ends_[1] = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    for (int end : ends_) {
      const int on = 1;
      Check(::setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0);
      Check(::ioctl(end, FIONBIO, &on) == 0);
    }
  }

  int ends_[2] = {-1, -1};
};

class PingPong {
 public:
  static constexpr int kTrips = 1000;

  PingPong(bool tcp, int idlePairs) : busy_(tcp) {
    for (int i = 0; i < idlePairs; ++i) idle_.push_back(std::make_unique<SocketPair>(tcp));
  }

  // Makes the loop watch the sockets: the idle ones first, so that a loop that walks a list must
  // pass them.
  template <class Loop>
  void WatchWith(Loop* loop) {
    for (const auto& pair : idle_) loop->Watch(pair->Near());
    loop->Watch(busy_.Near());
    loop->Watch(busy_.Far());
  }
  void Start() {
    tripsLeft_ = kTrips;
    char bytes[kBytes] = {};
    Check(::send(busy_.Near(), bytes, kBytes, 0) == kBytes);
  }
  // Serves a readable socket. Returns true after the last round trip.
  bool Serve(int end) {
    char bytes[kBytes];
    const ssize_t n = ::recv(end, bytes, kBytes, 0);
    if (n < 0 && errno == EAGAIN) return false;
    Check(n == kBytes);
    if (end == busy_.Near() && --tripsLeft_ == 0) return true;
    Check(::send(end, bytes, kBytes, 0) == kBytes);
    return false;
  }

 private:
  static constexpr ssize_t kBytes = 64;

  SocketPair busy_;
  std::vector<std::unique_ptr<SocketPair>> idle_;
  int tripsLeft_ = 0;
};

}  // namespace loop_bench
