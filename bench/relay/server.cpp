// The far end of the peers that relay bytes.
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "bench/relay/ends.h"
#include "bench/relay/stream.h"

namespace relay {

namespace {

constexpr std::size_t kRoom = 1 << 20;

void TakeAll(int sock, std::uint64_t total) {
  PageBuffer room(kRoom);
  std::uint64_t taken = 0;
  while (taken < total) {
    const ssize_t n = ::recv(sock, room.Data(), room.Size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    taken += static_cast<std::uint64_t>(n);
  }
  (void)SendAll(sock, &taken, sizeof taken);  // a client that has gone needs no answer
}

void AnswerRounds(int sock, const StreamHead& head) {
  const std::size_t answer = head.total != 0 ? head.total : head.roundSize;
  PageBuffer round(std::max<std::size_t>(head.roundSize, answer));
  while (ReceiveAll(sock, round.Data(), head.roundSize) && SendAll(sock, round.Data(), answer)) {
  }
}

void ServeStream(const Descriptor& sock) {
  StreamHead head;
  if (!ReceiveAll(sock.Get(), &head, sizeof head) || head.roundSize > kRoom) return;
  if (head.roundSize == 0) return TakeAll(sock.Get(), head.total);
  if (head.total <= kPicture) AnswerRounds(sock.Get(), head);
}

void ServeListener(const Descriptor& listener) {
  for (;;) {
    Descriptor sock = Accept(listener);
    if (sock) std::thread([s = std::move(sock)] { ServeStream(s); }).detach();
  }
}

}  // namespace

int RunServer(std::uint16_t port, const std::string& unixPath) {
  const Descriptor tcp = ListenTcp(port);
  const Descriptor local = ListenUnix(unixPath);
  if (!tcp || !local) return 1;
  std::thread beside([&] { ServeListener(local); });
  ServeListener(tcp);
  beside.join();
  return 0;
}

}  // namespace relay
