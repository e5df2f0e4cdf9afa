// The floor: the least code that relays one TCP connection at a time to a Unix socket and back, in
// pieces of 128 KiB, level-triggered, without waiting in a transfer. `relay_floor PORT UNIXPATH`.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "bench/relay/stream.h"

namespace relay {

namespace {

void SetNonBlocking(int sock) { ::fcntl(sock, F_SETFL, ::fcntl(sock, F_GETFL) | O_NONBLOCK); }

bool MayRetry(ssize_t result) { return result < 0 && (errno == EAGAIN || errno == EINTR); }

// One way: what was read from one end and not yet taken by the other.
class Way {
 public:
  Way(int from, int to) : from_(from), to_(to) {}

  bool IsEmpty() const { return size_ == 0; }
  // Both are false at the stream's end.
  bool Fill() {
    const ssize_t n = ::recv(from_, room_.Data(), kChunk, 0);
    if (n > 0) {
      at_ = 0;
      size_ = static_cast<std::size_t>(n);
    }
    return n > 0 || MayRetry(n);
  }
  bool Empty() {
    const ssize_t n = ::send(to_, room_.Data() + at_, size_, MSG_NOSIGNAL);
    if (n > 0) {
      at_ += static_cast<std::size_t>(n);
      size_ -= static_cast<std::size_t>(n);
    }
    return n > 0 || MayRetry(n);
  }

 private:
  const int from_;
  const int to_;
  PageBuffer room_{kChunk};
  std::size_t at_ = 0;
  std::size_t size_ = 0;
};

class Joint {
 public:
  Joint(int left, int right) : ends_{left, right}, ways_{Way(left, right), Way(right, left)} {
    for (std::size_t i = 0; i < ends_.size(); ++i) {
      SetNonBlocking(ends_[i]);
      Select(EPOLL_CTL_ADD, i, EPOLLIN);
    }
  }

  void Run() {
    std::array<epoll_event, 2> seen;
    for (;;) {
      const int count = ::epoll_wait(epoll_.Get(), seen.data(), 2, -1);
      for (int i = 0; i < count; ++i)
        if (!Serve(seen[static_cast<std::size_t>(i)])) return;
      for (std::size_t i = 0; i < ends_.size(); ++i) SelectWanted(i);
    }
  }

 private:
  bool Serve(const epoll_event& event) {
    Way& way = ways_[event.data.u32];
    const bool readable = (event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0;
    if (readable && way.IsEmpty() && !way.Fill()) return false;
    for (Way& each : ways_)
      if (!each.IsEmpty() && !each.Empty()) return false;
    return true;
  }
  void SelectWanted(std::size_t end) {
    const std::uint32_t wanted = (ways_[end].IsEmpty() ? std::uint32_t{EPOLLIN} : 0) |
                                 (ways_[1 - end].IsEmpty() ? 0 : std::uint32_t{EPOLLOUT});
    if (wanted != selected_[end]) Select(EPOLL_CTL_MOD, end, wanted);
  }
  void Select(int operation, std::size_t end, std::uint32_t events) {
    epoll_event entry{};
    entry.events = events;
    entry.data.u32 = static_cast<std::uint32_t>(end);
    ::epoll_ctl(epoll_.Get(), operation, ends_[end], &entry);
    selected_[end] = events;
  }

  const Descriptor epoll_{::epoll_create1(EPOLL_CLOEXEC)};
  const std::array<int, 2> ends_;
  std::array<Way, 2> ways_;
  std::array<std::uint32_t, 2> selected_{};
};

int RunFloor(std::uint16_t port, const std::string& unixPath) {
  const Descriptor listener = ListenTcp(port);
  if (!listener) return 1;
  for (;;) {
    const Descriptor client = Accept(listener);
    const Descriptor server = DialUnix(unixPath);
    if (client && server) Joint(client.Get(), server.Get()).Run();
  }
}

}  // namespace

}  // namespace relay

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  if (argc == 3)
    return relay::RunFloor(static_cast<std::uint16_t>(std::strtoul(argv[1], nullptr, 10)), argv[2]);
  std::fputs("relay_floor PORT UNIXPATH\n", stderr);
  return 2;
}
